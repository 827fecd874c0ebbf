#include "Spin.h"

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

namespace nexnipc {
namespace {

constexpr unsigned kMissesCounted = 10;  // pauses go up to 1024 waits

// One processor is left to whoever is waited for.
unsigned spinnersAllowed() {
    static const unsigned allowed = static_cast<unsigned>(std::max(::sysconf(_SC_NPROCESSORS_ONLN) - 1, 1L));
    return allowed;
}

std::atomic<unsigned>& spinners() {
    static std::atomic<unsigned> count{0};
    return count;
}

}  // namespace

bool canRunApart(pid_t other) {
    cpu_set_t own;
    cpu_set_t theirs;
    CPU_ZERO(&own);
    CPU_ZERO(&theirs);
    // More processors than the set has room for; or a process of another namespace, which may run anywhere.
    if (::sched_getaffinity(0, sizeof(own), &own) != 0) return true;
    if (other <= 0 || ::sched_getaffinity(other, sizeof(theirs), &theirs) != 0)
        return ::sysconf(_SC_NPROCESSORS_ONLN) > 1;
    CPU_OR(&own, &own, &theirs);
    return CPU_COUNT(&own) > 1;
}

bool Spin::begin() {
    if (limit_.count() == 0) return false;
    if (pause_ > 0) {
        --pause_;
        return false;
    }
    if (spinners().fetch_add(1, std::memory_order_relaxed) < spinnersAllowed()) return true;
    spinners().fetch_sub(1, std::memory_order_relaxed);
    return false;
}

void Spin::finish(bool paid) {
    spinners().fetch_sub(1, std::memory_order_relaxed);
    misses_ = paid ? 0 : std::min(misses_ + 1, kMissesCounted);
    pause_ = paid ? 0 : 1U << misses_;
}

}  // namespace nexnipc
