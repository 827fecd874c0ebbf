#include "Process.h"

#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>

namespace bench {
namespace {

constexpr std::uint64_t perSecond = 1000000000U;

std::uint64_t nanoseconds(const timespec& time) {
    return static_cast<std::uint64_t>(time.tv_sec) * perSecond + static_cast<std::uint64_t>(time.tv_nsec);
}

long fieldOf(const std::string& file, const char* key) {
    std::ifstream status(file);
    for (std::string word; status >> word;) {
        if (word != key) continue;
        long value = 0;
        status >> value;
        return value;
    }
    return 0;
}

}  // namespace

std::uint64_t now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return nanoseconds(time);
}

void nap(std::uint64_t microseconds) { napUntil(now() + microseconds * 1000U); }

void napUntil(std::uint64_t monotonicNanoseconds) {
    timespec until{};
    until.tv_sec = static_cast<time_t>(monotonicNanoseconds / perSecond);
    until.tv_nsec = static_cast<decltype(until.tv_nsec)>(monotonicNanoseconds % perSecond);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
}

void require(bool ok, const char* what) {
    if (ok) return;
    std::fprintf(stderr, "nipc_bench: %s (errno %d: %s)\n", what, errno, std::strerror(errno));
    _exit(2);
}

void pinTo(const std::string& pin, Role role) {
    if (pin == "none") return;
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(pin == "split" && role == Role::Service ? 1U : 0U, &set);
    require(sched_setaffinity(0, sizeof(set), &set) == 0, "cannot bind to a processor");
}

double cpuTime(pid_t pid) {
    clockid_t clock{};
    timespec time{};
    if (clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &time) != 0) return 0;
    return static_cast<double>(nanoseconds(time));
}

long contextSwitches(pid_t pid) {
    long switches = 0;
    std::error_code ignored;
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", ignored)) {
        const std::string status = task.path().string() + "/status";
        switches += fieldOf(status, "voluntary_ctxt_switches:") + fieldOf(status, "nonvoluntary_ctxt_switches:");
    }
    return switches;
}

long statusField(pid_t pid, const char* key) { return fieldOf("/proc/" + std::to_string(pid) + "/status", key); }

}  // namespace bench
