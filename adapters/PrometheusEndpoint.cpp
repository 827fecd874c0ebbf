#include "nipcconnector/adapters/PrometheusEndpoint.h"

#include <prometheus/exposer.h>
#include <prometheus/registry.h>
#include <pthread.h>

#include <csignal>
#include <exception>
#include <mutex>

#include "nipcconnector/adapters/PrometheusRecorder.h"

namespace nipcconnector {
namespace {

/// What is scraped: the registry, after the connectors have reported.
class FreshRegistry : public prometheus::Collectable {
public:
    std::vector<prometheus::MetricFamily> Collect() const override {
        for (const auto& connector : living()) connector->reportAggregateMetrics();
        return registry->Collect();
    }
    void add(const std::shared_ptr<NIPCConnector>& connector) {
        const std::lock_guard<std::mutex> lock(mutex);
        connectors.push_back(connector);
    }
    const std::shared_ptr<prometheus::Registry> registry = std::make_shared<prometheus::Registry>();

private:
    std::vector<std::shared_ptr<NIPCConnector>> living() const {
        const std::lock_guard<std::mutex> lock(mutex);
        std::vector<std::shared_ptr<NIPCConnector>> found;
        for (const auto& connector : connectors) {
            if (auto alive = connector.lock()) found.push_back(std::move(alive));
        }
        return found;
    }

    mutable std::mutex mutex;
    std::vector<std::weak_ptr<NIPCConnector>> connectors;
};

/// Signals are the application's: threads that are made while one lives get none.
class SignalsBlocked {
public:
    SignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t before{};
};

}  // namespace

struct PrometheusEndpoint::Server {
    explicit Server(const std::string& address) : exposer(address) { exposer.RegisterCollectable(metrics); }

    const std::shared_ptr<FreshRegistry> metrics = std::make_shared<FreshRegistry>();
    prometheus::Exposer exposer;
};

std::unique_ptr<PrometheusEndpoint> PrometheusEndpoint::serve(const std::string& address) {
    const SignalsBlocked blocked;
    try {
        return std::unique_ptr<PrometheusEndpoint>(new PrometheusEndpoint(std::make_unique<Server>(address)));
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception&) {
        return nullptr;
    }
}

PrometheusEndpoint::PrometheusEndpoint(std::unique_ptr<Server> running) : server(std::move(running)) {}

PrometheusEndpoint::~PrometheusEndpoint() = default;

std::uint16_t PrometheusEndpoint::port() const {
    const auto ports = server->exposer.GetListeningPorts();
    return ports.empty() ? std::uint16_t{0} : static_cast<std::uint16_t>(ports.front());
}

std::unique_ptr<IMetricsRecorder> PrometheusEndpoint::recorder() const {
    return std::make_unique<PrometheusRecorder>(server->metrics->registry);
}

void PrometheusEndpoint::reportAtScrape(const std::shared_ptr<NIPCConnector>& connector) {
    server->metrics->add(connector);
}

}  // namespace nipcconnector
