#include "nipcconnector/testing/FakeTime.h"

#include <thread>

#include "connector/TimeSource.h"

namespace nipcconnector::testing {

struct FakeTime::Source : TimeSource {
    explicit Source(FakeTime& fake) : time(fake) {}
    std::uint64_t now() override { return time.clock; }
    void sleep(std::uint64_t milliseconds) override { time.sleep(milliseconds); }
    unsigned int random(unsigned int range) override { return (range - 1) * time.jitter / 2; }
    std::cv_status waitUntil(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
                             std::uint64_t deadline) override {
        return time.waitUntil(condition, lock, deadline);
    }
    FakeTime& time;
};

// Never destroyed, like the clock: a connector's thread may ask for the time while the process ends.
FakeTime::FakeTime() { setTimeSource(new Source(*this)); }

FakeTime& FakeTime::instance() {
    static auto* const time = new FakeTime;
    return *time;
}

void FakeTime::reset() {
    onSleep(nullptr);
    jitter = 1;
    waitsExpireAtOnce = false;
    slept = waits = 0;
    const std::lock_guard<std::mutex> lock(mutex);
    held = false;
    moved.notify_all();
}

void FakeTime::hold() {
    const std::lock_guard<std::mutex> lock(mutex);
    held = true;
    limit = clock;
}

void FakeTime::advance(std::chrono::milliseconds duration) {
    const std::lock_guard<std::mutex> lock(mutex);
    const auto nanoseconds = static_cast<std::uint64_t>(std::chrono::nanoseconds(duration).count());
    if (held)
        limit += nanoseconds;
    else
        clock += nanoseconds;
    moved.notify_all();
}

void FakeTime::onSleep(std::function<void()> hook) {
    const std::lock_guard<std::mutex> lock(mutex);
    sleepHook.swap(hook);
}

void FakeTime::sleep(std::uint64_t milliseconds) {
    std::unique_lock<std::mutex> lock(mutex);
    const std::uint64_t duration = milliseconds * 1'000'000;
    moved.wait(lock, [&] { return !held || clock + duration <= limit; });
    clock += duration;
    ++slept;
    const auto hook = sleepHook;
    lock.unlock();
    if (hook) hook();
    std::this_thread::yield();
}

std::cv_status FakeTime::waitUntil(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
                                   std::uint64_t deadline) {
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

}  // namespace nipcconnector::testing
