// nipc_peer service|client UUID: one end of a stress. It does what it is told in lines, and answers in lines; load.py
// brings several of them together.
#include <malloc.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

#include "Payload.h"
#include "nipcconnector/NIPCConnector.h"

using namespace nipctest;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Connector = nipcconnector::NIPCConnector;
using smarthome::RequestStatus;

namespace {

constexpr std::size_t kSmall = 200;
constexpr std::size_t kLarge = 40000;

std::shared_ptr<Connector> connector;
std::atomic<unsigned long> bad{0};          // payloads that were not what was sent
std::atomic<unsigned long> sendsFailed{0};  // as the recorder was told
std::atomic<unsigned long> linesOfIt{0};    // as the log was told
std::atomic<std::uint64_t> lost{0};
std::atomic<unsigned long> events{0}, answers{0}, failures{0}, large{0};
std::atomic<unsigned> slowness{0};  // microseconds per event
std::atomic<bool> explains{false};  // failures, on the error stream

void say(const std::string& line) {
    static std::mutex mutex;
    const std::lock_guard<std::mutex> lock(mutex);
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

class CountingLogger : public nipcconnector::ILogger {
public:
    void info(const char*, ...) override {}
    void debug(const char* format, ...) override {
        if (std::strcmp(format, "Initializing IPC server..done") == 0) say("up");
    }
    void error(const char* format, ...) override {
        if (std::strcmp(format, "Failed to send %s to clientId %d, status: %d") == 0) ++linesOfIt;
        if (!explains) return;
        va_list arguments;
        va_start(arguments, format);
        char text[300];
        std::vsnprintf(text, sizeof text, format, arguments);
        va_end(arguments);
        std::fprintf(stderr, "%d: %s\n", getpid(), text);
    }
    void warn(const char*, ...) override {}
};

class CountingRecorder : public nipcconnector::IMetricsRecorder {
public:
    void record(const std::string& name, const std::vector<smarthome::TalvoraDimension>&) override {
        if (name == "EventSendFailure") ++sendsFailed;
    }
};

/// How long something took, over and over, in microseconds. Its memory is there from the start and stays: a soak takes
/// what grows for a leak.
class Durations {
public:
    Durations() : spent_(1U << 16U) { spent_.clear(); }
    template <typename Work>
    auto measure(Work work) {
        const auto start = Clock::now();
        const auto result = work();
        const std::chrono::duration<double, std::micro> spent = Clock::now() - start;
        const std::lock_guard<std::mutex> lock(mutex_);
        spent_.push_back(spent.count());
        return result;
    }
    /// "COUNT P50 P99 MAX" of those since the last time.
    std::string take() {
        std::vector<double> taken;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            taken = spent_;
            spent_.clear();
        }
        std::sort(taken.begin(), taken.end());
        std::ostringstream text;
        text << taken.size();
        for (const double part : {0.5, 0.99, 1.0}) {
            const double rank = part * static_cast<double>(taken.size());
            text << ' ' << (taken.empty() ? 0 : taken[std::min(static_cast<std::size_t>(rank), taken.size() - 1)]);
        }
        return text.str();
    }

private:
    std::mutex mutex_;
    std::vector<double> spent_;
} calls, publishing;

bool check(const char* data, std::size_t size) {
    std::uint64_t number = 0;
    if (isWhole(data, size, number)) return true;
    ++bad;
    return false;
}

unsigned int sizeOf(const std::string& text) { return static_cast<unsigned int>(text.size()); }

// What the subscribers have seen: the number of the last event, each.
std::map<std::string, unsigned long> progress;
std::mutex progressMutex;

void serve() {
    const std::string self = std::to_string(getpid());
    connector->registerSyncRequestHandler("check", [self](auto data, auto size) {
        const std::string answer = check(data, size) ? self : "bad";
        return std::vector<char>(answer.begin(), answer.end());
    });
    const auto answerWith = [](std::size_t answerSize) {
        return [answerSize](auto data, auto size, auto respond, auto&) {
            check(data, size);
            const std::string answer = payload(answerSize, 1);
            respond(true, answer.data(), sizeOf(answer));
        };
    };
    connector->registerAsyncRequestHandler("check", answerWith(kSmall));
    connector->registerAsyncRequestHandler("fetch", answerWith(kLarge));
    connector->registerAsyncRequestHandler("progress", [](auto data, auto size, auto, auto&) {
        std::istringstream words(std::string(data, size));
        std::string who;
        unsigned long number = 0;
        words >> who >> number;
        const std::lock_guard<std::mutex> lock(progressMutex);
        progress[who] = number;
        if (progress.size() <= 32) return;  // Those that left are forgotten: a soak takes what grows for a leak.
        progress.erase(std::min_element(progress.begin(), progress.end(),
                                        [](const auto& a, const auto& b) { return a.second < b.second; }));
    });
    // Both listeners are inside a large transfer at the same time.
    connector->registerAsyncRequestHandler("cross", [](auto, auto, auto, auto&) {
        connector->publishEvent("cross", "", 0);
        connector->publishEvent("news", payload(kLarge, 0));
    });
    connector->initialize();
}

void subscribe() {
    const std::string self = std::to_string(getpid());
    connector->subscribeForEvent("", "news", [self, last = std::uint64_t{0}](auto data, auto size) mutable {
        std::uint64_t number = 0;
        if (!isWhole(data, size, number)) ++bad;
        if (number > last + 1 && last > 0) lost += number - last - 1;
        last = number;
        ++events;
        if (size >= kLarge) ++large;
        std::this_thread::sleep_for(std::chrono::microseconds(slowness));
        const std::string text = self + " " + std::to_string(number);
        if (number % 200 == 0)
            connector->makeAsyncRequestWithRecurringCallback("", "progress", text.data(), sizeOf(text));
    });
    connector->subscribeForEvent("", "cross", [](auto, auto) {
        const std::string request = payload(kLarge, 0);
        const auto start = Clock::now();
        const auto status =
            connector->makeAsyncRequestWithRecurringCallback("", "check", request.data(), sizeOf(request));
        const auto spent = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
        say("crossed " + std::string(status == RequestStatus::Success ? "well " : "in vain ") +
            std::to_string(spent.count()));
    });
    connector->setRecurringCallback([](bool, auto data, auto size) {
        check(data, size);
        ++answers;
    });
    connector->initialize();
}

void countFailure(const std::string& kind, Clock::time_point start) {
    ++failures;
    const std::chrono::duration<double, std::milli> spent = Clock::now() - start;
    if (explains) std::fprintf(stderr, "%d: %s failed after %.0f ms\n", getpid(), kind.c_str(), spent.count());
}

// One request of that kind; tells when another service has answered than before.
void ask(const std::string& kind) {
    static const std::string little = payload(kSmall, 1);
    static const std::string much = payload(kLarge, 1);
    static std::string served;  // Only the thread with synchronous requests uses it.
    const auto start = Clock::now();
    if (kind == "sync") {
        const auto answer =
            calls.measure([] { return connector->makeSyncRequest("", "check", little.data(), sizeOf(little)); });
        std::string pid(answer.response.begin(), answer.response.end());
        if (answer.status != RequestStatus::Success) countFailure(kind, start);
        if (answer.status != RequestStatus::Success || pid == served) return;
        if (pid == "bad") ++bad;
        say("served " + pid);
        served = pid;
    } else {
        const std::string& request = kind == "large" ? much : little;
        const auto status = connector->makeAsyncRequestWithRecurringCallback("", kind == "fetch" ? "fetch" : "check",
                                                                             request.data(), sizeOf(request));
        if (status != RequestStatus::Success) countFailure(kind, start);
    }
}

// Kinds in turn, with a pause after each, until the process ends.
void keepAsking(const std::vector<std::string>& kinds, std::chrono::microseconds pause) {
    for (std::size_t i = 0;; ++i) {
        ask(kinds[i % kinds.size()]);
        std::this_thread::sleep_for(pause);
    }
}

// Not faster than `readers` subscribers follow.
void publish(unsigned long first, unsigned long count, std::size_t size, std::size_t readers, unsigned pause) {
    constexpr unsigned long kAhead = 800;
    std::string event = payload(size, 0);
    for (unsigned long number = first; number < first + count; ++number) {
        const auto followed = [&] {
            const std::lock_guard<std::mutex> lock(progressMutex);
            const auto follows = std::count_if(progress.begin(), progress.end(),
                                               [&](const auto& reader) { return reader.second + kAhead > number; });
            return static_cast<std::size_t>(follows) >= readers;
        };
        while (number > first + kAhead && readers > 0 && !followed()) std::this_thread::sleep_for(100us);
        PayloadHead head{0, number};
        std::memcpy(event.data(), &head, sizeof(head));
        head.checksum = checksumOf(event.data(), event.size());
        std::memcpy(event.data(), &head, sizeof(head));
        if (pause > 0)
            connector->publishEvent("news", event);
        else
            publishing.measure([&] { return connector->publishEvent("news", event); });
        std::this_thread::sleep_for(std::chrono::milliseconds(pause));
    }
}

std::string report() {
    std::ostringstream text;
    text << "bad " << bad << " events " << events << " lost " << lost << " answers " << answers << " failures "
         << failures << " large " << large << " unsent " << sendsFailed << " lines " << linesOfIt << " allocated "
         << mallinfo2().uordblks;
    return text.str();
}

void obey(const std::string& line) {
    std::istringstream words(line);
    std::string order;
    words >> order;
    if (order == "ask") {  // PAUSE-US KIND...
        unsigned pause = 0;
        words >> pause;
        std::vector<std::string> kinds;
        for (std::string kind; words >> kind;) kinds.push_back(kind);
        std::thread(keepAsking, kinds, std::chrono::microseconds(pause)).detach();
    } else if (order == "call") {  // COUNT
        unsigned count = 0;
        for (words >> count; count > 0; --count) ask("sync");
        say("calls " + calls.take());
    } else if (order == "request") {  // KIND COUNT
        std::string kind;
        unsigned count = 0;
        for (words >> kind >> count; count > 0; --count) ask(kind);
        say("requested");
    } else if (order == "publish" || order == "keep") {  // FIRST COUNT SIZE READERS PAUSE-MS
        unsigned long first = 0, count = 0;
        std::size_t size = 0, readers = 0;
        unsigned pause = 0;
        words >> first >> count >> size >> readers >> pause;
        if (order == "keep") return std::thread(publish, first, count, size, readers, pause).detach();
        publish(first, count, size, readers, pause);
        say("published " + publishing.take());
    } else if (order == "cross") {
        connector->makeAsyncRequestWithRecurringCallback("", "cross", "", 0);
    } else if (order == "slow") {  // MICROSECONDS
        unsigned each = 0;
        words >> each;
        slowness = each;
    } else if (order == "explain") {  // 0 or 1
        bool wanted = false;
        words >> wanted;
        explains = wanted;
    } else if (order == "calls") {
        say("calls " + calls.take());
    } else if (order == "report") {
        say(report());
    }
}

}  // namespace

int main(int argc, char** argv) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (argc < 3) return 2;
    const bool isClient = std::strcmp(argv[1], "client") == 0;
    const auto uuid = static_cast<std::uint16_t>(std::stoul(argv[2]));
    connector = Connector::getInstance(isClient, "peer", {"peer", uuid}, std::make_unique<CountingLogger>(),
                                       std::make_unique<CountingRecorder>());
    isClient ? subscribe() : serve();
    for (std::string line; std::getline(std::cin, line);) obey(line);
    _exit(0);
}
