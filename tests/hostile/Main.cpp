// Hostile sessions by the thousand against one service, while a client that keeps to the rules is measured beside it:
//
//   nipc_hostile [SESSIONS] [SEED]
//
// Ends with a table, and with a failure when the service or the client had to pay for it.
#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <fstream>
#include <functional>
#include <sstream>
#include <thread>

#include "HostileClient.h"
#include "HostileService.h"
#include "Process.h"
#include "nipcconnector/NIPCConnector.h"

using namespace nipctest;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Connector = nipcconnector::NIPCConnector;

namespace {

constexpr std::uint16_t kService = 41301;
constexpr std::uint16_t kHostileService = 41302;
constexpr auto kSlice = 250ms;
constexpr auto kBetweenSessions = 200us;
constexpr unsigned kLong = 100000;

std::shared_ptr<Connector> make(bool isClient) {
    return Connector::getInstance(isClient, isClient ? "client" : "service", {"service", kService}, nullptr, nullptr);
}

/// What was allocated and not freed: the allocator keeps some of the rest for each thread, and what that is, is chance.
std::string bytesInUse() {
#if defined(__GLIBC__) && __GLIBC_PREREQ(2, 33)
    const struct mallinfo2 info = mallinfo2();
    return std::to_string(info.uordblks + info.hblkhd);
#else
    return "0";
#endif
}

int service(const std::vector<std::string>&) {
    const auto connector = make(false);
    connector->registerSyncRequestHandler(
        "echo", [](const char* data, unsigned int length) { return std::vector<char>(data, data + length); });
    connector->registerAsyncRequestHandler(
        "note", [](auto, auto, auto respond, auto&) { respond(true, std::string(8000, 'n').c_str(), 8000U); });
    connector->initialize();
    say("ready");
    while (!hearParent().empty()) say(bytesInUse());
    return 0;
}

struct Figures {
    std::mutex mutex;
    std::vector<double> calls;  // Microseconds.
    std::uint64_t failures = 0;
};

double percentile(std::vector<double> values, double part) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    return values[static_cast<std::size_t>(static_cast<double>(values.size() - 1) * part)];
}

void measure(Connector& connector, Figures& figures) {
    const std::string payload(100, 'p');
    for (;; std::this_thread::sleep_for(500us)) {
        const auto start = Clock::now();
        const auto result = connector.makeSyncRequest("service", "echo", payload.data(), 100);
        const std::chrono::duration<double, std::micro> taken = Clock::now() - start;
        const std::lock_guard<std::mutex> lock(figures.mutex);
        if (result.status != smarthome::RequestStatus::Success) ++figures.failures;
        figures.calls.push_back(taken.count());
    }
}

// Says, each time it is asked: failures so far, and the percentiles since then.
int wellBehaved(const std::vector<std::string>&) {
    const auto connector = make(true);
    connector->initialize();
    while (connector->makeSyncRequest("service", "echo", "x", 1).status != smarthome::RequestStatus::Success)
        std::this_thread::sleep_for(10ms);
    auto& figures = *new Figures;  // The measuring thread does not end.
    std::thread([connector, &figures] { measure(*connector, figures); }).detach();
    say("ready");
    while (!hearParent().empty()) {
        const std::lock_guard<std::mutex> lock(figures.mutex);
        std::ostringstream line;
        line << figures.failures << ' ' << percentile(figures.calls, 0.5) << ' ' << percentile(figures.calls, 0.99);
        say(line.str());
        figures.calls.clear();
    }
    _exit(0);
}

int victim(const std::vector<std::string>&) {
    for (std::string times = hearParent(); !times.empty(); times = hearParent()) {
        sufferSessions(kHostileService, static_cast<unsigned>(std::stoul(times)));
        say(bytesInUse());
    }
    return 0;
}

/// What a process has of the system, by its own account of memory.
struct Holdings {
    Holdings(const Process& process, const std::string& bytes)
        : descriptors(descriptorCount(process.pid())), tasks(taskCount(process.pid())) {
        std::istringstream(bytes) >> allocated;
        std::ifstream("/proc/" + std::to_string(process.pid()) + "/statm") >> pages >> pages;
    }
    bool within(const Holdings& before) const {
#ifdef __SANITIZE_ADDRESS__
        constexpr std::size_t cached = 1U << 30U;  // It keeps what is freed, to notice who uses it.
#else
        constexpr std::size_t cached = 48U << 20U;  // By the allocator.
#endif
        constexpr std::size_t kept = 128U << 10U;
        const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        return descriptors <= before.descriptors && tasks <= before.tasks && allocated <= before.allocated + kept &&
               pages * page <= before.pages * page + cached;
    }
    std::string text() const {
        return std::to_string(descriptors) + " descriptors, " + std::to_string(tasks) + " threads, " +
               std::to_string(allocated / 1024) + " KiB allocated, " +
               std::to_string(pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) / 1024) + " KiB resident";
    }
    std::size_t descriptors, tasks, pages = 0, allocated = 0;
};

class Run {
public:
    Run(unsigned sessions, std::uint64_t seed)
        : sessions_(sessions),
          client_(directory_.path + "/" + std::to_string(kService) + ".sock", kService, seed),
          hostile_(directory_.path + "/" + std::to_string(kHostileService) + ".sock", seed) {}

    bool run();

private:
    /// What was measured beside one kind of sessions, slice by slice.
    struct Phase {
        const char* what;
        unsigned sessions = 0;
        double seconds = 0;
        std::uint64_t failures = 0;
        std::vector<double> medians{}, tails{};
    };

    void during(Phase& phase, unsigned sessions, const std::function<void()>& session);
    void quiet() {
        during(quiet_, 0, [] { std::this_thread::sleep_for(10ms); });
    }
    void show(const Phase& phase);
    void check(bool holds, const std::string& what);
    static Holdings holdings(Process& process, const char* order);
    void settle(const char* who, Process& process, const char* order, const Holdings& before);
    void attackService();
    void attackClient();

    const ServiceDirectory directory_;
    const unsigned sessions_;
    Process service_{{"service"}};
    Process wellBehaved_{{"well-behaved"}};
    Process victim_{{"victim"}};
    HostileClient client_;
    HostileService hostile_;
    Phase warming_{"first sessions"}, quiet_{"nothing"}, ordinary_{"ordinary sessions"}, beside_{"hostile sessions"};
    bool good_ = true;
};

void Run::check(bool holds, const std::string& what) {
    if (holds) return;
    std::printf("FAILED: %s\n", what.c_str());
    good_ = false;
}

// At least so many sessions, in slices of equal length: the p99 of a longer time holds more of what else the machine
// does.
void Run::during(Phase& phase, unsigned sessions, const std::function<void()>& session) {
    double median = 0, tail = 0;
    const auto ask = [&] {
        wellBehaved_.send("figures");
        std::istringstream(wellBehaved_.hear()) >> phase.failures >> median >> tail;
    };
    ask();
    unsigned done = 0;
    do {
        const auto start = Clock::now();
        for (; Clock::now() - start < kSlice; ++done) session();
        phase.seconds += std::chrono::duration<double>(Clock::now() - start).count();
        ask();
        phase.medians.push_back(median);
        phase.tails.push_back(tail);
    } while (done < sessions);
    phase.sessions += done;
}

void Run::show(const Phase& phase) {
    std::printf("%-28s %9u %9.0f/s %8.0f us %8.0f us %8.0f us %6zu slices\n", phase.what, phase.sessions,
                phase.sessions / phase.seconds, percentile(phase.medians, 0.5), percentile(phase.tails, 0.5),
                percentile(phase.tails, 0.9), phase.tails.size());
    check(phase.failures == 0 && percentile(phase.medians, 0.5) > 0, "calls of the well-behaved client fail");
}

Holdings Run::holdings(Process& process, const char* order) {
    process.send(order);
    return {process, process.hear()};
}

void Run::settle(const char* who, Process& process, const char* order, const Holdings& before) {
    const auto deadline = Clock::now() + kPatience;
    Holdings after = holdings(process, order);
    for (; !after.within(before) && Clock::now() < deadline; after = holdings(process, order)) {
        std::this_thread::sleep_for(20ms);
    }
    std::printf("%-28s before: %s\n%-28s after:  %s\n", who, before.text().c_str(), "", after.text().c_str());
    check(after.within(before), std::string(who) + " did not give back what it took");
}

// A tenth of the sessions, the first thousand of them unmeasured.
void Run::attackClient() {
    const auto attack = [this](unsigned times) {
        victim_.send(std::to_string(times));
        while (times > 0 && hostile_.session()) --times;
        return times == 0 && !victim_.hear().empty();
    };
    bool alive = attack(1000);
    const Holdings before = holdings(victim_, "0");
    const auto start = Clock::now();
    for (unsigned left = sessions_ / 10; left > 0 && alive; left -= std::min(left, 1000U)) {
        alive = attack(std::min(left, 1000U));
    }
    check(alive, "the client of a hostile service hangs");
    const std::chrono::duration<double> taken = Clock::now() - start;
    std::printf("%-28s %9u %9.0f/s\n", "hostile service", sessions_ / 10, sessions_ * 0.1 / taken.count());
    settle("client of a hostile service", victim_, "0", before);
}

// In rounds, so that what else the machine does meets all of them alike.
void Run::attackService() {
    // What they cost the service is measured, not the want of processors.
    const auto hostile = [this] { client_.session(), std::this_thread::sleep_for(kBetweenSessions); };
    setpriority(PRIO_PROCESS, 0, 19);
    during(warming_, std::max(1000U, sessions_ / 20), hostile);  // What is allocated once, is by now.
    client_.letGo();
    client_.counts.clear();
    quiet();
    const Holdings usual = holdings(service_, "account");
    const unsigned rounds = sessions_ < kLong ? 10 : 100;
    for (unsigned round = 0; round < rounds; ++round) {
        quiet();
        during(ordinary_, 0, [this] { client_.ordinarySession(); });
        during(beside_, sessions_ / rounds, hostile);
        client_.letGo();
    }
    std::printf("%-28s %9s %11s %11s %11s %11s\n", "beside the calls", "sessions", "", "p50", "p99", "in one of 10");
    for (const Phase* phase : {&warming_, &quiet_, &ordinary_, &beside_}) show(*phase);
    // Short runs are for machines that do other things as well.
    const double slack = sessions_ < kLong ? 1e5 : 500;
    for (const double part : {0.5, 0.9}) {
        check(percentile(beside_.tails, part) <= 2 * percentile(ordinary_.tails, part) + slack,
              "hostile sessions cost others more than twice what ordinary ones do");
    }
    std::printf("%-28s %9zu connections\n", "as many as descriptors", client_.exhaustDescriptors());
    const double before = percentile(quiet_.tails, 0.5);
    quiet_ = Phase{"nothing, at that limit"};
    quiet();
    show(quiet_);
    client_.letGo();
    settle("service", service_, "account", usual);
    for (int i = 0; i < 40 && (i == 0 || percentile(quiet_.tails, 0.5) > 2 * before); ++i) {
        quiet_ = Phase{"nothing, afterwards"};
        quiet();
    }
    show(quiet_);
    check(percentile(quiet_.tails, 0.5) <= 2 * before + slack, "calls take longer than before");
}

bool Run::run() {
    check(service_.hear() == "ready" && wellBehaved_.hear() == "ready", "the processes do not start");
    if (good_) {
        attackService();
        attackClient();
    }
    for (const auto& counts : {client_.counts, hostile_.counts}) {
        for (const auto& [name, count] : counts)
            std::printf("%-28s %9lu\n", name.c_str(), static_cast<unsigned long>(count));
    }
    for (const auto& survived : {client_.survived, hostile_.survived}) {
        for (const auto& [name, count] : survived)
            check(false, name + ": was let pass " + std::to_string(count) + " times");
    }
    return good_;
}

}  // namespace

int main(int argc, char** argv) {
    const int status = runRole(argc, argv, {{"service", service}, {"well-behaved", wellBehaved}, {"victim", victim}});
    if (status >= 0) return status;
    const unsigned sessions = argc > 1 ? static_cast<unsigned>(std::stoul(argv[1])) : 5000;
    const std::uint64_t seed = argc > 2 ? std::stoull(argv[2]) : std::random_device{}();
    std::printf("%u sessions, seed %llu\n", sessions, static_cast<unsigned long long>(seed));
    return Run(sessions, seed).run() ? 0 : 1;
}
