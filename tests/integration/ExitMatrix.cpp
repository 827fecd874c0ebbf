// nipc_exitmatrix [runs]: a process with a server and a client, both in traffic, ends in every way a process may end
// by itself, with its connectors held in every way an application may hold them. It must not crash, must not hang, and
// its loggers must not be called once they are destroyed.
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <thread>

#include "Node.h"
#include "connector/TimeSource.h"

using namespace nipctest;
using namespace std::chrono_literals;

namespace {

constexpr std::uint16_t kLeaver = 42401;   // Offered by the process that ends,
constexpr std::uint16_t kPartner = 42402;  // and by the one that stays.
constexpr int kStatus = 3;

const char* const kWays[] = {"return", "exit", "handler", "callback", "retry"};
const char* const kHolders[] = {"registry", "early global", "late global", "own handler"};

/// Lives in memory that is never freed, so that a call after its destruction is seen for certain.
class WatchedLogger : public nipcconnector::ILogger {
public:
    ~WatchedLogger() override { destroyed_ = true; }
    void info(const char*, ...) override { check(); }
    void debug(const char*, ...) override { check(); }
    void error(const char*, ...) override { check(); }
    void warn(const char*, ...) override { check(); }

    static void* operator new(std::size_t size) {
        static auto& kept = *new std::vector<void*>;
        return kept.emplace_back(std::malloc(size));
    }
    static void operator delete(void*) {}

private:
    void check() const {
        if (!destroyed_) return;
        say("a logger was called after its destruction");
        _exit(99);
    }
    std::atomic<bool> destroyed_{false};
};

/// An application's global, which uses what it holds to the last.
struct Holder {
    ~Holder() {
        for (const auto& connector : connectors) {
            connector->makeAsyncRequest("", "echo", "x", 1, [](bool, auto, auto) {});
            connector->publishEvent("news", "x", 1);
            connector->reportAggregateMetrics();
        }
    }
    std::vector<std::shared_ptr<Connector>> connectors;
};

Holder early;  // Older than the registry, so destroyed after it.

Holder& late() {
    static Holder holder;
    return holder;
}

/// The system's clock, set forward at will.
class MovedTime : public nipcconnector::TimeSource {
public:
    explicit MovedTime(TimeSource& system) : system_(system) {}
    std::uint64_t now() override { return system_.now() + ahead; }
    void sleep(std::uint64_t milliseconds) override { system_.sleep(milliseconds); }
    unsigned int random(unsigned int range) override { return system_.random(range); }
    std::cv_status waitUntil(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
                             std::uint64_t deadline) override {
        return system_.waitUntil(condition, lock, deadline - ahead);
    }
    std::atomic<std::uint64_t> ahead{0};

private:
    TimeSource& system_;
};

std::shared_ptr<Connector> make(bool isClient, std::uint16_t uuid, std::unique_ptr<WatchedLogger> logger) {
    return Connector::getInstance(isClient, std::to_string(uuid), {"", uuid}, std::move(logger), nullptr);
}
std::shared_ptr<Connector> make(bool isClient, std::uint16_t uuid) {
    return make(isClient, uuid, std::make_unique<WatchedLogger>());
}

/// Requests from a thread of its own, which keeps no connector, until the process ends.
void keepAsking(std::uint16_t uuid, std::function<void()> onAnswer) {
    std::thread([uuid, onAnswer = std::move(onAnswer)] {
        const std::string large = pattern(20000);
        unsigned int count = 0;
        while (const auto connector = make(true, uuid, nullptr)) {
            connector->makeAsyncRequest("", "echo", large.data(), ++count % 8 == 0 ? 20000 : 10,
                                        [onAnswer](bool, auto, auto) { onAnswer(); });
            connector->makeSyncRequest("", "echo", "x", 1);
            std::this_thread::sleep_for(1ms);
        }
    }).detach();
}

void serve(const std::shared_ptr<Connector>& connector, std::function<void()> onRequest,
           std::shared_ptr<Connector> captured = nullptr) {
    connector->registerSyncRequestHandler(
        "echo", [](auto data, auto length) { return std::vector<char>(data, data + length); });
    connector->registerAsyncRequestHandler(
        "echo", [onRequest, captured, raw = connector.get()](auto data, auto length, auto respond, auto&) {
            respond(true, data, length);
            raw->publishEvent("news", data, 1);
            onRequest();
        });
    connector->initialize();
}

int partner(const std::vector<std::string>&) {
    serve(make(false, kPartner), [] {});
    make(true, kLeaver)->initialize();
    keepAsking(kLeaver, [] {});
    say("up");
    hearParent();
    _exit(0);
}

/// Requests served and answers received; once both flow the end begins.
struct Traffic {
    std::atomic<int> served{0};
    std::atomic<int> answered{0};
    bool flows() const { return served >= 5 && answered >= 5; }
};

void bring(const std::string& way, const std::string& holder, Traffic& traffic) {
    const auto server = make(false, kLeaver);
    const auto client = make(true, kPartner);
    if (holder == "early global") early.connectors = {server, client};
    if (holder == "late global") late().connectors = {server, client};
    const bool capture = holder == "own handler";
    const auto onRequest = [&traffic, way] {
        ++traffic.served;
        if (way == "handler" && traffic.flows()) std::exit(kStatus);
    };
    const auto onAnswer = [&traffic, way] {
        ++traffic.answered;
        if (way == "callback" && traffic.flows()) std::exit(kStatus);
    };
    serve(server, onRequest, capture ? server : nullptr);
    client->subscribeForEvent("", "news", [self = capture ? client : nullptr](auto, auto) {});
    client->initialize();
    keepAsking(kPartner, onAnswer);
}

int leaver(const std::vector<std::string>& arguments) {
    const std::string& way = arguments.at(0);
    static auto& traffic = *new Traffic;  // Never destroyed: threads use it to the last.
    static auto& time = *new MovedTime(nipcconnector::timeSource());
    nipcconnector::setTimeSource(&time);
    bring(way, arguments.at(1), traffic);
    while (!traffic.flows()) std::this_thread::sleep_for(1ms);
    if (way == "retry") {  // A second server wants the partner's number; then five minutes pass.
        make(false, kPartner)->initialize();
        time.ahead = 300'000'000'000U;
    }
    if (way == "exit") std::exit(kStatus);
    while (way != "return") pause();
    return kStatus;
}

int matrix(int runs) {
    const ServiceDirectory directory;
    // The address sanitizer's usual status is that of the five-minute end.
    const char* const options = std::getenv("ASAN_OPTIONS");
    setenv("ASAN_OPTIONS", ((options != nullptr ? options : "") + std::string(":exitcode=98")).c_str(), 1);
    Process staying({"partner"});
    if (staying.hear() != "up") return 1;
    int failures = 0;
    for (const char* way : kWays) {
        for (const char* holder : kHolders) {
            const int expected = std::string(way) == "retry" ? 1 : kStatus;
            for (int run = 0; run < runs; ++run) {
                Process leaving({"leaver", way, holder});
                const int status = leaving.wait();
                if (status == expected) continue;
                ++failures;
                std::printf("FAILED: end by %s, held by %s, run %d: status %d %s\n", way, holder, run, status,
                            status == -1 ? "(hangs)" : leaving.hear().c_str());
            }
        }
    }
    std::printf("%d runs of each of %zu ends and %zu holders, %d failed\n", runs, std::size(kWays), std::size(kHolders),
                failures);
    return failures == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const int status = runRole(argc, argv, {{"partner", partner}, {"leaver", leaver}});
    if (status >= 0) return status;
    return matrix(argc > 1 ? std::atoi(argv[1]) : 3);
}
