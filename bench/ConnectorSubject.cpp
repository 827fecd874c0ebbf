#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "Observers.h"
#include "Process.h"
#include "Subject.h"
#include "nipcconnector/FunctionId.h"
#include "nipcconnector/NIPCConnector.h"

namespace bench {
namespace {

using nipcconnector::NIPCConnector;
using smarthome::RequestStatus;
using Connector = std::shared_ptr<NIPCConnector>;

const std::string service = "bench";
const std::string echo = "echo";
const std::string take = "take";
const std::string fetch = "fetch";
const std::string event = "event";

// One answer that a caller waits for.
class Answer {
public:
    void arrived(bool ok, std::size_t length) {
        const std::lock_guard<std::mutex> lock(mutex);
        require(ok, "a request was answered with failure");
        size = length;
        done = true;
        condition.notify_one();
    }
    std::size_t wait() {
        std::unique_lock<std::mutex> lock(mutex);
        condition.wait(lock, [this] { return done; });
        done = false;
        return size;
    }

private:
    std::mutex mutex;
    std::condition_variable condition;
    bool done = false;
    std::size_t size = 0;
};

// Names that are known but never used; none shares its identifier with one that is.
std::vector<std::string> fillerNames(int count) {
    std::vector<std::string> names;
    for (int i = 0; static_cast<int>(names.size()) < count; ++i) {
        std::string name = "another." + std::to_string(i);
        const auto id = nipcconnector::computeFunctionId(name);
        bool used = false;
        for (const std::string& other : {echo, take, fetch, event})
            used = used || id == nipcconnector::computeFunctionId(other);
        if (!used) names.push_back(std::move(name));
    }
    return names;
}

class ConnectorSubject final : public Subject {
public:
    explicit ConnectorSubject(Options given) : options(std::move(given)) {}

    void startService() override {
        for (int i = 0; i < options.services; ++i) {
            const Connector server = open(false, "service", i, i);
            registerHandlers(*server);
            require(server->initialize(), "cannot start the service");
        }
    }

    void answer() override {
        for (;;) pause();
    }

    void publish(const char* data, std::size_t size) override {
        require(connectors[0]->publishEvent(event, data, static_cast<unsigned>(size)), "publishEvent");
    }

    void connect() override {
        for (int i = 0; i < options.services; ++i) {
            const Connector client = open(true, "client", i, i);
            for (const std::string& name : fillerNames(options.names))
                client->subscribeForEvent(service, name, [](const char*, unsigned) {});
        }
        connectAll();
    }

    void connectIdle(int connections) override {
        for (int i = 0; i < connections; ++i) open(true, "idle", i, i % options.services);
        connectAll();
    }

    std::size_t call(int caller, long turn, const char* data, std::size_t size) override {
        NIPCConnector& client = *connectors[static_cast<std::size_t>(caller + turn) % connectors.size()];
        const auto length = static_cast<unsigned>(size);
        if (options.is("W4")) return callLarge(client, data, length);
        const auto result = client.makeSyncRequest(service, echo, data, length);
        require(result.status == RequestStatus::Success, "makeSyncRequest");
        return result.response.size();
    }

    void pipeline(long count) override {
        goal = count;
        sent = answered = 0;
        payload.assign(options.size, 'q');
        for (int i = 0; i < options.window; ++i) sendNext();
        through.wait();
    }

    void subscribe(OnEvent onEvent) override {
        for (int i = 0; i < options.subscribers; ++i)
            open(true, "subscriber", i, 0)
                ->subscribeForEvent(service, event,
                                    [onEvent, i](const char* data, unsigned length) { onEvent(i, data, length); });
        connectAll();
    }

private:
    Connector open(bool isClient, const char* name, int number, int serviceNumber) {
        nipcconnector::NIPCServiceConfig config;
        config.serverName = service;
        config.uuid = static_cast<std::uint16_t>(4000 + serviceNumber);
        const bool observed = options.variant == "logged";
        Connector connector = NIPCConnector::getInstance(isClient, name + std::to_string(number), config,
                                                         observed ? makeCountingLogger() : nullptr,
                                                         observed ? makeCountingRecorder() : nullptr);
        require(connector != nullptr, "getInstance");
        connectors.push_back(connector);
        return connector;
    }

    void registerHandlers(NIPCConnector& server) {
        payload.assign(options.size, 'a');
        server.registerSyncRequestHandler(
            echo, [](const char* data, unsigned length) { return std::vector<char>(data, data + length); });
        server.registerAsyncRequestHandler(echo, [](const char* data, unsigned length, const auto& respond,
                                                    const std::string&) { respond(true, data, length); });
        server.registerAsyncRequestHandler(
            take, [](const char*, unsigned, const auto& respond, const std::string&) { respond(true, nullptr, 0); });
        server.registerAsyncRequestHandler(fetch,
                                           [this](const char*, unsigned, const auto& respond, const std::string&) {
                                               respond(true, payload.data(), static_cast<unsigned>(payload.size()));
                                           });
        for (const std::string& name : fillerNames(options.names))
            server.registerSyncRequestHandler(name, [](const char*, unsigned) { return std::vector<char>(1); });
    }

    // A client without logger and recorder learns that it is connected by being answered.
    void connectAll() {
        for (const Connector& client : connectors) require(client->initialize(), "initialize");
        const std::uint64_t deadline = now() + 30000000000U;
        for (const Connector& client : connectors)
            while (client->makeSyncRequest(service, echo, "?", 1).status != RequestStatus::Success) {
                require(now() < deadline, "no connection");
                nap(1000);
            }
    }

    std::size_t callLarge(NIPCConnector& client, const char* data, unsigned length) {
        const bool asks = options.variant == "answers";
        const auto status =
            client.makeAsyncRequest(service, asks ? fetch : take, data, asks ? 1 : length,
                                    [this](bool ok, const char*, unsigned size) { through.arrived(ok, size); });
        require(status == RequestStatus::Success, "makeAsyncRequest");
        return through.wait();
    }

    // W2: each answer's callback sends the next request.
    void sendNext() {
        if (sent.fetch_add(1) >= goal) return;
        const auto status =
            connectors[0]->makeAsyncRequest(service, echo, payload.data(), static_cast<unsigned>(payload.size()),
                                            [this](bool ok, const char*, unsigned length) {
                                                require(ok && length == options.size, "a request was answered wrongly");
                                                sendNext();
                                                if (answered.fetch_add(1) + 1 == goal) through.arrived(true, 0);
                                            });
        require(status == RequestStatus::Success, "makeAsyncRequest");
    }

    const Options options;
    std::vector<Connector> connectors;
    std::vector<char> payload;
    std::atomic<long> goal{0};
    std::atomic<long> sent{0};
    std::atomic<long> answered{0};
    Answer through;
};

}  // namespace

std::unique_ptr<Subject> makeConnectorSubject(const Options& options) {
    return std::make_unique<ConnectorSubject>(options);
}

}  // namespace bench
