#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>

namespace nipcconnector::testing {

/// A clock for connectors, driven by the test. From the first use it stands in place of the system's clock to
/// the end of the process: use it before the first connector is made.
///
/// It runs ahead by itself: a connector that sleeps moves it on and goes on at once, so that twenty minutes of
/// retrying take milliseconds. Where a test must see what happens between two sleeps, it holds the clock and
/// lets time pass by advance(). Thread-safe.
class FakeTime {
public:
    /// The one of the process.
    static FakeTime& instance();

    /// Running by itself, no hook, middle jitter, counters at 0. The clock goes on from where it is.
    void reset();

    /// From now on no sleep ends before advance() has given it the time.
    void hold();
    /// Lets time pass. While the clock is held, it passes as connectors sleep, now or later, and not beyond this.
    void advance(std::chrono::milliseconds duration);

    /// Nanoseconds.
    std::uint64_t now() const { return clock; }

    /// Runs after every sleep, on the thread that slept.
    void onSleep(std::function<void()> hook);

    std::atomic<std::uint64_t> clock{1'000'000'000};  ///< What now() says.
    std::atomic<unsigned int> jitter{1};  ///< 0 gives the least random number, 1 the middle one, 2 the greatest.
    /// A wait for something else than time, as for an acknowledgement, is a real one and takes as long as the
    /// clock says; unless this is true.
    std::atomic<bool> waitsExpireAtOnce{false};
    std::atomic<int> slept{0};  ///< How often a connector has slept.
    std::atomic<int> waits{0};  ///< How often it has waited for something else.

private:
    struct Source;

    FakeTime();
    void sleep(std::uint64_t milliseconds);
    std::cv_status waitUntil(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
                             std::uint64_t deadline);

    std::mutex mutex;
    std::condition_variable moved;
    bool held = false;
    std::uint64_t limit = 0;
    std::function<void()> sleepHook;
};

}  // namespace nipcconnector::testing
