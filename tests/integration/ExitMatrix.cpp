// nipc_exitmatrix [runs]: a process with a server and a client ends in every way a process may end by itself, whatever
// they are at, and with its connectors held in every way an application may hold them. It must not crash, must be gone
// within a second, and its loggers must not be called once they are destroyed.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <list>
#include <stdexcept>
#include <thread>

#include "TestServer.h"
#include "connector/TimeSource.h"

using namespace nipctest;
using namespace std::chrono_literals;
using smarthome::RequestStatus;

namespace {

// Each lane of runs has numbers of its own.
constexpr int kFirstUuid = 42401;
std::uint16_t leaverUuid, partnerUuid, absentUuid;  // Offered by the process that ends, by the one that stays, by none.

constexpr int kStatus = 3;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(NIPC_TEST_EMULATOR)
constexpr int kSlowness = 5;
#else
constexpr int kSlowness = 1;
#endif
constexpr auto kLimit = kSlowness * 1000ms;
constexpr auto kTransferLimit = kSlowness * 3500ms;

const char* const kWays[] = {"return", "thread", "handler"};
const char* const kStates[] = {"idle", "connecting", "in a callback", "traffic", "large transfer", "frozen peer"};
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

void takeNumbers(const std::string& lane) {
    leaverUuid = static_cast<std::uint16_t>(kFirstUuid + 3 * std::stoi(lane));
    partnerUuid = static_cast<std::uint16_t>(leaverUuid + 1);
    absentUuid = static_cast<std::uint16_t>(leaverUuid + 2);
}

/// A thread that does something over and over with a connector, keeping none, until the process ends.
void keep(std::uint16_t uuid, std::function<void(Connector&)> doing) {
    std::thread([uuid, doing = std::move(doing)] {
        while (const auto connector = make(true, uuid, nullptr)) {
            doing(*connector);
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
            onRequest();
            respond(true, data, length);
            raw->publishEvent("news", data, 1);
        });
    connector->initialize();
}

int partner(const std::vector<std::string>& arguments) {
    takeNumbers(arguments.at(0));
    serve(make(false, partnerUuid), [] {});
    make(true, leaverUuid)->initialize();
    keep(leaverUuid, [](Connector& leaver) { leaver.makeAsyncRequest("", "echo", "x", 1, [](bool, auto, auto) {}); });
    say("up");
    hearParent();
    _exit(0);
}

/// The client of the process that ends, and what came of it. Never destroyed: threads use it to the last.
struct Leaver {
    std::shared_ptr<Connector> client() const { return make(true, partnerUuid, nullptr); }
    std::atomic<int> served{0};
    std::atomic<int> answered{0};
    std::atomic<bool> endsInHandler{false};
};
Leaver& leaving = *new Leaver;

void await(const std::function<bool()>& condition) {
    while (!condition()) std::this_thread::sleep_for(1ms);
}

void exchange(Connector& connector, std::size_t size) {
    const std::string payload = pattern(size);
    connector.makeAsyncRequest("", "echo", payload.data(), static_cast<unsigned int>(size),
                               [](bool, auto, auto) { ++leaving.answered; });
}

void stayInACallback() {
    static std::atomic<bool> entered{false};
    leaving.client()->makeAsyncRequest("", "echo", "x", 1, [](bool, auto, auto) {
        entered = true;
        for (;;) pause();
    });
    await([] { return entered.load(); });
}

/// Brings the process into the state it ends in.
void enter(const std::string& state) {
    if (state == "connecting") {
        make(true, absentUuid)->initialize();
        make(false, partnerUuid)->initialize();
    } else if (state == "in a callback") {
        stayInACallback();
    } else if (state == "traffic" || state == "large transfer") {
        const std::size_t size = state == "traffic" ? 10 : 5242880;
        keep(partnerUuid, [size](Connector& connector) { exchange(connector, size); });
        await([] { return leaving.answered >= 2; });
    } else if (state == "frozen peer") {
        say("freeze");
        hearParent();
        keep(partnerUuid, [](Connector& connector) { exchange(connector, 20000); });
        std::this_thread::sleep_for(20ms);  // Nothing tells that the transfer waits.
    }
    say("ending");
}

void bring(const std::string& state, const std::string& holder) {
    const auto server = make(false, leaverUuid);
    const auto client = make(true, partnerUuid);
    if (holder == "early global") early.connectors = {server, client};
    if (holder == "late global") late().connectors = {server, client};
    const bool capture = holder == "own handler";
    const auto onRequest = [state] {
        ++leaving.served;
        if (!leaving.endsInHandler) return;
        enter(state);
        std::exit(kStatus);
    };
    serve(server, onRequest, capture ? server : nullptr);
    client->subscribeForEvent("", "news", [self = capture ? client : nullptr](auto, auto) {});
    client->initialize();
    await([&client] {
        return leaving.served > 0 && client->makeSyncRequest("", "echo", "x", 1).status == RequestStatus::Success;
    });
}

int leaver(const std::vector<std::string>& arguments) {
    takeNumbers(arguments.at(0));
    const std::string& way = arguments.at(1);
    const std::string& state = arguments.at(2);
    static auto& time = *new MovedTime(nipcconnector::timeSource());
    nipcconnector::setTimeSource(&time);
    bring(state, arguments.at(3));
    if (way == "handler") {
        leaving.endsInHandler = true;
    } else if (way == "five minutes") {  // Of a second server, which wants the partner's number.
        enter("connecting");
        time.ahead = 300'000'000'000U;
    } else {
        enter(state);
        if (way == "return") return kStatus;
        std::thread([] { std::exit(kStatus); }).detach();
    }
    for (;;) pause();
}

/// Runs ends one after the other beside one partner.
class Lane {
public:
    Lane(int number, int runs) : name_(std::to_string(number)), runs_(runs), partner_({"partner", name_}) {
        if (partner_.hear() != "up") throw std::runtime_error("the partner does not start");
    }

    void play(const char* holder) {
        for (const char* way : kWays) {
            for (const char* state : kStates) end({"leaver", name_, way, state, holder}, kStatus);
        }
        end({"leaver", name_, "five minutes", "", holder}, 1);
    }

    int failures() const { return failures_; }
    std::chrono::milliseconds longest() const { return longest_; }

private:
    void end(const std::vector<std::string>& cell, int expected) {
        const bool frozen = cell[3] == "frozen peer";
        for (int run = 0, slow = 0; run < runs_; ++run) {
            Process process(cell);
            std::string said = process.hear();
            if (said == "freeze") {
                kill(partner_.pid(), SIGSTOP);
                process.send("frozen");
                said = process.hear();
            }
            const auto began = std::chrono::steady_clock::now();
            const int status = process.wait();
            const auto took =
                std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - began);
            if (frozen) kill(partner_.pid(), SIGCONT);
            // What is too slow three times in a row is not for want of a processor.
            if (took > (frozen ? kTransferLimit : kLimit) && ++slow < 3 && status == expected) {
                --run;
                continue;
            }
            if (!frozen) longest_ = std::max(longest_, took);
            if (status == expected && slow < 3) continue;
            ++failures_;
            std::printf("FAILED: end by %s, %s, held by %s, run %d: status %d after %lld ms %s\n", cell[2].c_str(),
                        cell[3].c_str(), cell[4].c_str(), run, status, static_cast<long long>(took.count()),
                        status == -1 ? "(hangs)" : process.hear().c_str());
        }
    }

    const std::string name_;
    const int runs_;
    Process partner_;
    int failures_ = 0;
    std::chrono::milliseconds longest_{0};
};

int matrix(int runs) {
    const ServiceDirectory directory;
    // The address sanitizer's usual status is that of the five-minute end.
    const char* const options = std::getenv("ASAN_OPTIONS");
    setenv("ASAN_OPTIONS", ((options != nullptr ? options : "") + std::string(":exitcode=98")).c_str(), 1);
    std::list<Lane> lanes;
    std::list<std::thread> threads;
    for (const char* holder : kHolders) {
        Lane& lane = lanes.emplace_back(static_cast<int>(lanes.size()), runs);
        threads.emplace_back([&lane, holder] { lane.play(holder); });
    }
    for (std::thread& thread : threads) thread.join();
    int failures = 0;
    std::chrono::milliseconds longest{0};
    for (const Lane& lane : lanes) {
        failures += lane.failures();
        longest = std::max(longest, lane.longest());
    }
    std::printf("%d runs of each of %zu ends, %zu states and %zu holders, %d failed; the longest took %lld ms\n", runs,
                std::size(kWays), std::size(kStates), std::size(kHolders), failures,
                static_cast<long long>(longest.count()));
    return failures == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const int status = runRole(argc, argv, {{"partner", partner}, {"leaver", leaver}});
    if (status >= 0) return status;
    return matrix(argc > 1 ? std::atoi(argv[1]) : 3);
}
