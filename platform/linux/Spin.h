#pragma once

#include <sys/types.h>

#include <chrono>

namespace nexnipc {

// Whether this process and that one may run on two processors at once, as far as their affinities tell.
bool canRunApart(pid_t other);

// Waking a sleeping thread costs more than the message that wakes it. Who has just been busy therefore looks again
// and again for a short while before it sleeps, as long as that pays: where it does not, because the other side needs
// this very processor or takes its time, it is tried ever more seldom. Never while idle: each sleep is preceded by
// one such while at most. For one thread at a time.
class Spin {
public:
    // No longer than `limit`; 0 is never.
    explicit Spin(std::chrono::microseconds limit) : limit_(limit) {}

    // True when `look` found something; false when the caller had better sleep.
    template <typename Look>
    bool finds(const Look& look) {
        if (!begin()) return false;
        bool found = look();
        if (!found) {
            const Clock::time_point end = Clock::now() + patience();
            do {
                found = look();
            } while (Clock::now() < end && !found);
            // What comes when the time is through was sent by somebody whom the kernel let run instead of us.
            finish(found && Clock::now() < end);
            return found;
        }
        finish(true);
        return true;
    }

private:
    using Clock = std::chrono::steady_clock;

    bool begin();
    void finish(bool paid);
    // A trial after misses takes longer: the other side is asleep, and has to be woken first.
    std::chrono::microseconds patience() const { return misses_ > 0 ? 2 * limit_ : limit_; }

    const std::chrono::microseconds limit_;
    unsigned misses_ = 0;
    unsigned pause_ = 0;  // so many waits are not tried at all
};

}  // namespace nexnipc
