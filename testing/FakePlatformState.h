#pragma once

#include <array>
#include <condition_variable>
#include <deque>
#include <mutex>

#include "nipcconnector/testing/FakePlatform.h"

namespace nipcconnector::testing {

using Lock = std::lock_guard<std::mutex>;

struct FakePlatform::State {
    struct Script {
        std::deque<std::int32_t> results;
        std::function<void(const Call&)> hook;
    };
    Script& scriptOf(Operation operation) { return scripts[static_cast<std::size_t>(operation)]; }

    std::mutex mutex;
    std::condition_variable called;
    std::vector<Call> recorded;
    std::array<Script, static_cast<std::size_t>(Operation::Count)> scripts;
    std::vector<Endpoint> endpoints;
    SyncAnswer syncAnswer;
    std::int32_t nextHandle = 100;
};

}  // namespace nipcconnector::testing
