#include "nipcconnector/adapters/ConnectionWatch.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace nipcconnector {

struct ConnectionWatch::State {
    void learn(bool isConnected) {
        std::unique_lock<std::mutex> lock(mutex);
        connected = isConnected;
        changed.notify_all();
        if (telling) return;  // Who tells looks again before he ends, so that the last word is the latest.
        telling = true;
        while (told != connected) tell(lock);
        telling = false;
    }

    void tell(std::unique_lock<std::mutex>& lock) {
        const bool news = told = connected;
        lock.unlock();
        try {
            if (onChange) onChange(news);
        } catch (...) {
            lock.lock();
            telling = false;
            throw;
        }
        lock.lock();
    }

    ChangeHandler onChange;
    std::mutex mutex;
    std::condition_variable changed;
    bool connected = false;
    bool told = false;
    bool telling = false;
};

namespace {

// The watch whose report this thread is asking for: a connector records it on the thread that asks.
thread_local const void* asking = nullptr;

bool saysConnected(const std::vector<smarthome::TalvoraDimension>& dimensions) {
    return std::any_of(dimensions.begin(), dimensions.end(), [](const auto& dimension) {
        return dimension.name == "ConnectionState" && dimension.stringValue == "Connected";
    });
}

}  // namespace

class ConnectionWatch::Recorder : public IMetricsRecorder {
public:
    Recorder(std::shared_ptr<State> shared, std::unique_ptr<IMetricsRecorder> nextRecorder)
        : state(std::move(shared)), next(std::move(nextRecorder)) {}

    void record(const std::string& metricName, const std::vector<smarthome::TalvoraDimension>& dimensions) override {
        const bool isReport = metricName == "AggregateConnectionQuality";
        if (isReport) state->learn(saysConnected(dimensions));
        if (metricName == "ServerDisconnection" || metricName == "ConnectionFailure") state->learn(false);
        if (next && !(isReport && asking == state.get())) next->record(metricName, dimensions);
    }

private:
    const std::shared_ptr<State> state;
    const std::unique_ptr<IMetricsRecorder> next;
};

ConnectionWatch::ConnectionWatch(ChangeHandler onChange) : state(std::make_shared<State>()) {
    state->onChange = std::move(onChange);
}

std::unique_ptr<IMetricsRecorder> ConnectionWatch::recorder(std::unique_ptr<IMetricsRecorder> next) const {
    return std::make_unique<Recorder>(state, std::move(next));
}

bool ConnectionWatch::connected() const {
    const std::lock_guard<std::mutex> lock(state->mutex);
    return state->connected;
}

bool ConnectionWatch::update(NIPCConnector& connector) const {
    asking = state.get();
    connector.reportAggregateMetrics();
    asking = nullptr;
    return connected();
}

bool ConnectionWatch::waitUntilConnected(NIPCConnector& connector, std::chrono::milliseconds limit) const {
    return waitUntil(true, connector, limit);
}

bool ConnectionWatch::waitUntilLost(NIPCConnector& connector, std::chrono::milliseconds limit) const {
    return waitUntil(false, connector, limit);
}

// Often at first, since most connections take no time at all; seldom later, since each report is a log line.
bool ConnectionWatch::waitUntil(bool connected, NIPCConnector& connector, std::chrono::milliseconds limit) const {
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::milliseconds longest = std::chrono::hours(87600);  // A longer one may overflow the clock.
    const auto end = Clock::now() + std::min(limit, longest);
    std::chrono::milliseconds pause(2);
    while (update(connector) != connected) {
        const auto now = Clock::now();
        if (now >= end) return false;
        std::unique_lock<std::mutex> lock(state->mutex);
        state->changed.wait_until(lock, std::min(now + pause, end), [&] { return state->connected == connected; });
        pause = std::min(pause * 2, std::chrono::milliseconds(200));
    }
    return true;
}

}  // namespace nipcconnector
