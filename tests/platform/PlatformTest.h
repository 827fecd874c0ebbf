#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

#include "Endpoint.h"
#include "Process.h"

constexpr std::uint16_t kUuid = 41201;    // The service of a test.
constexpr std::uint16_t kRequest = 2000;  // Functions of no special meaning.
constexpr std::uint16_t kEvent = 3000;
constexpr std::uint16_t kNever = 2001;  // A synchronous request that the service role never answers.

class PlatformTest : public testing::Test {
protected:
    const nipctest::ServiceDirectory directory;
};

/// Something that happens once, in one thread, and is waited for in others.
class Signal {
public:
    void set() { promise_.set_value(); }
    bool wait() const { return future_.wait_for(nipctest::kPatience) == std::future_status::ready; }

private:
    std::promise<void> promise_;
    const std::shared_future<void> future_{promise_.get_future()};
};

/// Polls until `condition` holds; what the kernel shows of a process sends no event.
template <class Condition>
bool eventually(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + nipctest::kPatience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}
