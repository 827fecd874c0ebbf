// A life of two connectors that stay: whatever fails, they come together again by themselves.
#include <atomic>
#include <cstring>

#include "Lives.h"
#include "connector/TimeSource.h"
#include "nipcconnector/NIPCConnector.h"

using namespace std::chrono_literals;
using nipcconnector::NIPCConnector;

namespace {

constexpr std::uint16_t kUuid = 41402;

/// Keeps what is said of errors.
class FaultLogger : public nipcconnector::ILogger {
public:
    void info(const char* format, ...) override { note(format); }
    void debug(const char*, ...) override {}
    void error(const char* format, ...) override {
        note(format);
        ++errors;
    }
    void warn(const char*, ...) override {}
    static inline std::atomic<int> errors{0};
    static inline std::atomic<int> connections{0};

private:
    static void note(const char* format) {
        if (std::strcmp(format, "Successfully connected to server") == 0) ++connections;
    }
};

/// The pauses between attempts are short, and five minutes never pass.
class ShortTime : public nipcconnector::TimeSource {
public:
    explicit ShortTime(TimeSource& system) : system_(system), start_(system.now()) {}
    std::uint64_t now() override { return start_ + (system_.now() - start_) / 4; }
    void sleep(std::uint64_t) override { system_.sleep(5); }
    unsigned int random(unsigned int range) override { return system_.random(range); }
    std::cv_status waitUntil(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
                             std::uint64_t deadline) override {
        return system_.waitUntil(condition, lock, deadline);
    }

private:
    TimeSource& system_;
    const std::uint64_t start_;
};

}  // namespace

std::string connectorLife(const std::string&) {
    static const auto server =
        NIPCConnector::getInstance(false, "faulty", {"", kUuid}, std::make_unique<FaultLogger>(), nullptr);
    static const auto client =
        NIPCConnector::getInstance(true, "faulty", {"", kUuid}, std::make_unique<FaultLogger>(), nullptr);
    static std::atomic<int> answers{0}, events{0};
    static const std::string large(100000, 'x');
    static const bool begun = [] {
        server->registerSyncRequestHandler("echo",
                                           [](auto data, auto size) { return std::vector<char>(data, data + size); });
        server->registerAsyncRequestHandler(
            "echo", [](auto data, auto size, auto respond, auto&) { respond(true, data, size); });
        client->subscribeForEvent("", "news", [](auto, auto size) { events += size == large.size() ? 1 : 0; });
        return server->initialize() && client->initialize();
    }();
    const int answersBefore = answers;
    const int eventsBefore = events;
    Steps steps;
    const auto size = static_cast<unsigned int>(large.size());
    const auto sync = [] { return client->makeSyncRequest("", "echo", "x", 1).status; };
    using smarthome::RequestStatus;
    steps.good("initialize", begun ? 0 : 1) &&
        steps.good("connect", soon([] { return FaultLogger::connections > 0; }, 5s) ? 0 : 1) &&
        steps.good("sync", soon([&] { return sync() == RequestStatus::Success; }, 5s) ? 0 : 1) &&
        steps.good("large request", client->makeAsyncRequest("", "echo", large.data(), size,
                                                             [](bool, auto, auto got) {
                                                                 answers += got == large.size() ? 1 : 0;
                                                             }) == RequestStatus::Success
                                        ? 0
                                        : 1) &&
        steps.good("large answer", soon([&] { return answers > answersBefore; }, 4s) ? 0 : 1) &&
        steps.good("large event", server->publishEvent("news", large) ? 0 : 1) &&
        steps.good("received event", soon([&] { return events > eventsBefore; }, 4s) ? 0 : 1);
    if (!steps.failed.empty() && FaultLogger::errors == 0) steps.failed += " without a line";
    return steps.failed;
}
