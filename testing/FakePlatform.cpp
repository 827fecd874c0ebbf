#include "nipcconnector/testing/FakePlatform.h"

#include <algorithm>

#include "FakePlatformState.h"
#include "nipcconnector/FunctionId.h"

namespace nipcconnector::testing {

FakePlatform::FakePlatform() : state(std::make_unique<State>()) {}

void FakePlatform::reset() {
    const Lock lock(state->mutex);
    state->recorded.clear();
    state->scripts = {};
    state->endpoints.clear();
    state->syncAnswer = {};
    acknowledgesShares = regionsCanBeMapped = true;
}

void FakePlatform::failNext(Operation operation, std::int32_t status, std::size_t times) {
    const Lock lock(state->mutex);
    state->scriptOf(operation).results.assign(times, status);
}

void FakePlatform::onNextCall(Operation operation, std::function<void(const Call&)> hook) {
    const Lock lock(state->mutex);
    state->scriptOf(operation).hook.swap(hook);
}

void FakePlatform::answerSyncWith(SyncAnswer answer) {
    const Lock lock(state->mutex);
    state->syncAnswer = std::move(answer);
}

std::vector<Call> FakePlatform::calls(Operation operation) const {
    const Lock lock(state->mutex);
    std::vector<Call> found;
    for (const Call& call : state->recorded) {
        if (call.operation == operation) found.push_back(call);
    }
    return found;
}

std::vector<Call> FakePlatform::requests(const std::string& requestName) const {
    const FunctionId functionId = computeFunctionId(requestName);
    const Lock lock(state->mutex);
    std::vector<Call> found;
    for (const Call& call : state->recorded) {
        const bool isRequest = call.operation == Operation::RpcAsync || call.operation == Operation::RpcSync ||
                               call.operation == Operation::ClientShareFd;
        if (isRequest && call.functionId == functionId) found.push_back(call);
    }
    return found;
}

void FakePlatform::forgetCalls() {
    const Lock lock(state->mutex);
    state->recorded.clear();
}

bool FakePlatform::waitForCalls(Operation operation, std::size_t count, std::chrono::milliseconds limit) const {
    std::unique_lock<std::mutex> lock(state->mutex);
    const auto matches = [operation](const Call& call) { return call.operation == operation; };
    return state->called.wait_for(lock, limit, [&] {
        const auto found = std::count_if(state->recorded.begin(), state->recorded.end(), matches);
        return static_cast<std::size_t>(found) >= count;
    });
}

FakePlatform::Endpoint FakePlatform::endpoint(std::int32_t handle) const {
    const Lock lock(state->mutex);
    const auto& endpoints = state->endpoints;
    const auto found = std::find_if(endpoints.rbegin(), endpoints.rend(), [handle](const Endpoint& candidate) {
        return handle == -1 || candidate.handle == handle;
    });
    return found == endpoints.rend() ? Endpoint{-1, false, nullptr, nullptr} : *found;
}

std::string uniqueName(const std::string& stem) {
    static std::atomic<unsigned int> made{0};
    return stem + '-' + std::to_string(++made);
}

}  // namespace nipcconnector::testing
