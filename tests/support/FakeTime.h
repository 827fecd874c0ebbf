#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <thread>

#include "connector/TimeSource.h"

namespace nipctest {

/// A clock that only moves when somebody sleeps or waits in vain: twenty minutes of retrying take
/// milliseconds. From the first use it stands in place of the system's clock to the end of the process.
class FakeTime : public nipcconnector::TimeSource {
public:
    static FakeTime& instance() {
        static auto* const time = new FakeTime;
        return *time;
    }

    void reset() {
        onSleep(nullptr);
        jitter = 1;
        waitsExpireAtOnce = false;
        slept = waits = 0;
    }

    std::uint64_t now() override { return clock; }

    void sleep(std::uint64_t milliseconds) override {
        clock += milliseconds * 1'000'000;
        ++slept;
        std::unique_lock<std::mutex> lock(mutex);
        const auto hook = sleepHook;
        lock.unlock();
        if (hook) hook();
        std::this_thread::yield();
    }

    unsigned int random(unsigned int range) override { return (range - 1) * jitter / 2; }

    /// Really waits, as long as the clock says, unless waits expire at once.
    std::cv_status waitUntil(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
                             std::uint64_t deadline) override {
        const std::uint64_t start = clock;
        if (start >= deadline) return std::cv_status::timeout;
        ++waits;
        if (!waitsExpireAtOnce) {
            const auto status = condition.wait_for(lock, std::chrono::nanoseconds(deadline - start));
            if (status == std::cv_status::no_timeout) return status;
        }
        for (std::uint64_t seen = clock; seen < deadline && !clock.compare_exchange_weak(seen, deadline);) {
        }
        return std::cv_status::timeout;
    }

    /// Runs after every sleep, on the thread that slept.
    void onSleep(std::function<void()> hook) {
        const std::lock_guard<std::mutex> lock(mutex);
        sleepHook.swap(hook);
    }

    std::atomic<std::uint64_t> clock{1'000'000'000};
    std::atomic<unsigned int> jitter{1};  ///< 0 gives the least random number, 1 the middle one, 2 the greatest.
    std::atomic<bool> waitsExpireAtOnce{false};
    std::atomic<int> slept{0};
    std::atomic<int> waits{0};

private:
    FakeTime() { nipcconnector::setTimeSource(this); }

    std::mutex mutex;
    std::function<void()> sleepHook;
};

}  // namespace nipctest
