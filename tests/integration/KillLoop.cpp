// nipc_killloop [cycles]: kills the server and starts it again, over and over, under two clients that keep making
// requests. Each has to be served again each time, and none may gain descriptors or threads. Prints how long after
// the service was up again the first good reply came.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <functional>
#include <list>
#include <map>
#include <thread>
#include <utility>

#include "TestServer.h"

using namespace nipctest;
using namespace std::chrono_literals;
using smarthome::RequestStatus;

namespace {

constexpr std::uint16_t kUuid = 42301;

std::int64_t nanoseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

// Answers with its process id; says when it was up.
int server(const std::vector<std::string>&) {
    const auto connector =
        Connector::getInstance(false, "killed", {"killed", kUuid}, std::make_unique<StartLogger>(), nullptr);
    const std::string pid = std::to_string(getpid());
    connector->registerSyncRequestHandler("who",
                                          [pid](auto, auto) { return std::vector<char>(pid.begin(), pid.end()); });
    connector->registerAsyncRequestHandler("echo", [&connector](auto data, auto length, auto respond, auto&) {
        respond(true, data, length);
        connector->publishEvent("news", data, length);
    });
    connector->initialize();
    const std::int64_t up = nanoseconds();
    if (!StartLogger::started) return 1;
    say(std::to_string(up));
    hearParent();
    return 0;
}

/// Two threads that do something over and over, until they are told to rest.
class Workers {
public:
    void add(std::function<void()> work) {
        threads_.emplace_back([this, work = std::move(work)] {
            while (!ended_) {
                work();
                std::this_thread::sleep_for(1ms);  // The pace of the requests.
                if (!resting_) continue;
                if (++asleep_ == threads_.size()) say("resting");
                while (resting_ && !ended_) std::this_thread::sleep_for(10ms);
                --asleep_;
            }
        });
    }
    void rest(bool resting) { resting_ = resting; }
    ~Workers() {
        ended_ = true;
        for (std::thread& thread : threads_) thread.join();
    }

private:
    std::atomic<bool> resting_{false};
    std::atomic<bool> ended_{false};
    std::atomic<std::size_t> asleep_{0};
    std::list<std::thread> threads_;
};

// Asks without end and says who answered for the first time, and when. Large requests go beside, since one that loses
// its server keeps its sender for three seconds. Told "rest" it says when it does nothing more.
int client(const std::vector<std::string>& arguments) {
    const auto connector = Connector::getInstance(true, arguments.at(0), {"killed", kUuid}, nullptr, nullptr);
    connector->subscribeForEvent("", "news", [](auto, auto) {});
    connector->initialize();
    const std::string large = pattern(40000);
    Workers workers;
    workers.add([&connector, &large, count = 0U]() mutable {
        connector->makeAsyncRequest("", "echo", large.data(), ++count % 16 == 0 ? 40000 : 1, [](bool, auto, auto) {});
    });
    workers.add([&connector, last = std::string()]() mutable {
        const auto answer = connector->makeSyncRequest("", "who", "", 0);
        const std::string pid(answer.response.begin(), answer.response.end());
        if (answer.status != RequestStatus::Success || std::exchange(last, pid) == pid) return;
        say(pid + " " + std::to_string(nanoseconds()));
    });
    for (std::string order = hearParent(); !order.empty(); order = hearParent()) workers.rest(order == "rest");
    return 0;
}

struct Usage {
    std::size_t descriptors;
    std::size_t tasks;
    bool operator==(const Usage& other) const { return descriptors == other.descriptors && tasks == other.tasks; }
};

/// What the clients hold when they do nothing. Right after their last answer a thread may still be on its way out, so
/// this looks until it sees what is expected, or ten times the same.
std::vector<Usage> usage(std::list<Process>& clients, const std::vector<Usage>& expected) {
    for (Process& client : clients) {
        client.send("rest");
        for (std::string line = client.hear(); !line.empty() && line != "resting";) line = client.hear();
    }
    std::vector<Usage> held;
    for (int same = 0, looks = 0; looks < 100 && same < 10 && (expected.empty() || held != expected); ++looks) {
        std::vector<Usage> now;
        for (const Process& client : clients) now.push_back({descriptorCount(client.pid()), taskCount(client.pid())});
        same = std::exchange(held, now) == now && expected.empty() ? same + 1 : 0;
        std::this_thread::sleep_for(50ms);
    }
    for (Process& client : clients) client.send("go on");
    return held;
}

void printDelays(const std::string& name, std::vector<double> milliseconds) {
    std::sort(milliseconds.begin(), milliseconds.end());
    const auto percentile = [&](double part) {
        const auto rank = static_cast<std::size_t>(std::ceil(part * static_cast<double>(milliseconds.size())));
        return milliseconds.at(std::max<std::size_t>(rank, 1) - 1);
    };
    std::printf("%-14s p50 %8.2f ms   p99 %8.2f ms   max %8.2f ms   (%zu replies)\n", name.c_str(), percentile(0.5),
                percentile(0.99), milliseconds.back(), milliseconds.size());
}

int fail(const std::string& why) {
    std::printf("FAILED: %s\n", why.c_str());
    return 1;
}

int loop(int cycles) {
    const ServiceDirectory directory;
    const int measuredAt = std::min(10, cycles / 2);
    const std::chrono::milliseconds pauses[] = {200ms, 1050ms, 3000ms};
    std::map<std::string, std::vector<double>> delays;
    std::vector<Usage> before;
    std::list<Process> clients;
    for (const char* name : {"first", "second"}) clients.emplace_back(std::vector<std::string>{"client", name});
    for (int cycle = 0; cycle <= cycles; ++cycle) {
        const std::chrono::milliseconds pause = pauses[(cycle + 2) % 3];
        Process server({"server"});
        const std::string pid = std::to_string(server.pid());
        const std::string up = server.hear();
        if (up.empty()) return fail("the service did not start in cycle " + std::to_string(cycle));
        for (Process& client : clients) {
            std::string line = client.hear();
            while (!line.empty() && line.rfind(pid + " ", 0) != 0) line = client.hear();
            if (line.empty()) return fail("a client was not served in cycle " + std::to_string(cycle));
            if (cycle == 0) continue;  // Nobody was connected before.
            const double delay = static_cast<double>(std::stoll(line.substr(pid.size())) - std::stoll(up)) / 1e6;
            delays["all"].push_back(delay);
            delays["after " + std::to_string(pause.count()) + " ms"].push_back(delay);
        }
        if (cycle == measuredAt) before = usage(clients, {});
        if (cycle == cycles) {
            const std::vector<Usage> after = usage(clients, before);
            for (std::size_t i = 0; i < after.size(); ++i) {
                std::printf("client %zu: %zu descriptors and %zu tasks after cycle %d, %zu and %zu at the end\n", i + 1,
                            before[i].descriptors, before[i].tasks, measuredAt, after[i].descriptors, after[i].tasks);
            }
            if (after != before) return fail("a client holds more than before");
            break;
        }
        server.kill();
        std::this_thread::sleep_for(pauses[cycle % 3]);  // How long the service is away.
    }
    for (const auto& [name, milliseconds] : delays) printDelays(name, milliseconds);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const int status = runRole(argc, argv, {{"server", server}, {"client", client}});
    if (status >= 0) return status;
    return loop(argc > 1 ? std::atoi(argv[1]) : 6);
}
