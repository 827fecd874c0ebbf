#include "connector/TimeSource.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>

namespace nipcconnector {
namespace {

class SystemTime : public TimeSource {
public:
    std::uint64_t now() override {
        const auto sinceEpoch = std::chrono::steady_clock::now().time_since_epoch();
        return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(sinceEpoch).count());
    }

    void sleep(std::uint64_t milliseconds) override {
        std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
    }

    unsigned int random(unsigned int range) override { return static_cast<unsigned int>(std::rand()) % range; }

    std::cv_status waitUntil(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
                             std::uint64_t deadline) override {
        const std::chrono::nanoseconds sinceEpoch(static_cast<std::int64_t>(deadline));
        return condition.wait_until(lock, std::chrono::steady_clock::time_point(sinceEpoch));
    }
};

std::atomic<TimeSource*> replacement{nullptr};

}  // namespace

TimeSource& timeSource() {
    // Never destroyed: the retry thread may ask for the time while the process ends.
    static TimeSource& systemTime = *new SystemTime;
    TimeSource* const source = replacement.load();
    return source != nullptr ? *source : systemTime;
}

void setTimeSource(TimeSource* source) { replacement.store(source); }

}  // namespace nipcconnector
