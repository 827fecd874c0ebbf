// What runs on the retry thread. It owns what it reads: another start may replace the manager's members at
// any time, so each attempt works with copies.
#include "connector/RetryWorker.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <thread>
#include <utility>

#include "connector/Limits.h"
#include "connector/Log.h"
#include "connector/TimeSource.h"
#include "metrics/Dimensions.h"
#include "nipcconnector/NIPCConnector.h"

namespace nipcconnector {
namespace {

constexpr unsigned int firstDelayMs = 100;
constexpr unsigned int greatestDelayMs = 5000;
constexpr std::uint64_t sliceMs = 100;
constexpr std::int64_t serverLimitMs = 5 * 60 * 1000;
constexpr std::int64_t persistentFailureMs = 20 * 60 * 1000;

thread_local const void* retryManagerOfThisThread = nullptr;

unsigned int nextDelay(unsigned int delay) {
    delay = std::min(delay * 2, greatestDelayMs);
    if (delay > 9) delay = delay - delay / 10 + timeSource().random(2 * (delay / 10) + 1);
    return delay;
}

// Two servers may run out of time together; only one thread may call exit().
[[noreturn]] void endProcess() {
    static std::atomic_flag ending = ATOMIC_FLAG_INIT;
    while (ending.test_and_set()) std::this_thread::sleep_for(std::chrono::hours(1));
    std::exit(1);
}

}  // namespace

bool isRetryThreadOf(const void* retryManager) { return retryManagerOfThisThread == retryManager; }

struct NIPCConnector::AsyncRetryManager::Run {
    std::function<std::int32_t()> operation;
    std::string name;
    unsigned int delay = firstDelayMs;
    bool persistentReported = false;
};

void NIPCConnector::AsyncRetryManager::retryWorkerThread() {
    retryManagerOfThisThread = this;
    Run run;
    bool succeeded = false;
    do {
        const bool again = succeeded;
        run = Run();
        guarded([&] { loadOperation(run); });
        if (again) NIPC_LOG(connector->logger, debug, "Starting non-blocking retry for %s", run.name.c_str());
        succeeded = retryUntilDone(run);
    } while (goesRoundAgain(succeeded));
    NIPC_LOG(connector->logger, debug, "Retry stopped for %s", run.name.c_str());
    retryManagerOfThisThread = nullptr;
}

// True when the operation succeeded, false when the retry was stopped.
bool NIPCConnector::AsyncRetryManager::retryUntilDone(Run& run) {
    while (active) {
        std::int32_t status = -ENOMEM;
        guarded([&] {
            loadOperation(run);
            status = run.operation();
        });
        if (status == 0) {
            guarded([&] { reportSuccess(run); });
            return true;
        }
        guarded([&] { reportFailure(run, status); });
        pause(run.delay);
        run.delay = nextDelay(run.delay);
    }
    return false;
}

// Nothing may leave the thread, not even a shortage of memory.
template <typename Function>
void NIPCConnector::AsyncRetryManager::guarded(Function&& function) {
    callGuarded(connector->logger.get(), "Retry thread", std::forward<Function>(function));
}

void NIPCConnector::AsyncRetryManager::loadOperation(Run& run) {
    const std::lock_guard<std::mutex> lock(mutex);
    run.operation = operation;
    run.name = operationName;
}

// The end of the worker, unless a start was refused for its sake. One critical section: a start comes either
// before it and is found, or after it and gets a worker of its own.
bool NIPCConnector::AsyncRetryManager::goesRoundAgain(bool succeeded) {
    const std::lock_guard<std::mutex> lock(mutex);
    if (succeeded && active && takeRefusedStart()) return true;
    if (succeeded) active = false;
    threadFinished = true;
    condition.notify_all();
    return false;
}

void NIPCConnector::AsyncRetryManager::reportSuccess(const Run& run) {
    std::int32_t attempts = 0;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        attempts = attemptCount;
    }
    NIPC_LOG(connector->logger, info, "%s succeeded after %d retries", run.name.c_str(), static_cast<int>(attempts));
    if (run.persistentReported) {
        connector->recordMetric("ConnectionInitiationEventualSuccess", {stringDimension("OperationName", run.name),
                                                                        integerDimension("RetryAttempts", attempts)});
    }
}

void NIPCConnector::AsyncRetryManager::reportFailure(Run& run, std::int32_t status) {
    std::int32_t attempts = 0;
    std::uint64_t started = 0;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        attempts = ++attemptCount;
        started = startTime;
    }
    const auto elapsedMs = static_cast<std::int64_t>(timeSource().now() - started) /
                           static_cast<std::int64_t>(NANOSECONDS_PER_MILLISECOND);
    NIPC_LOG(connector->logger, warn, "%s failed on attempt %d, status: %d, retrying in %dms", run.name.c_str(),
             static_cast<int>(attempts), static_cast<int>(status), static_cast<int>(run.delay));

    const std::vector<smarthome::TalvoraDimension> dimensions = {stringDimension("OperationName", run.name),
                                                                 integerDimension("RetryAttempts", attempts),
                                                                 integerDimension("TotalDurationMs", elapsedMs)};
    if (run.name == "NIPC_SERVER_INIT") {
        if (elapsedMs < serverLimitMs) return;
        NIPC_LOG(connector->logger, error, "%s has been failing for %ldms with %d attempts - aborting process",
                 run.name.c_str(), static_cast<long>(elapsedMs), static_cast<int>(attempts));
        connector->recordMetric("ServerInitFatalFailure", dimensions);
        endProcess();
    }
    if (run.persistentReported || elapsedMs < persistentFailureMs) return;
    connector->recordMetric("ConnectionInitiationFailure", dimensions);
    NIPC_LOG(connector->logger, error, "%s has been failing for %ldms with %d attempts - this is a persistent failure",
             run.name.c_str(), static_cast<long>(elapsedMs), static_cast<int>(attempts));
    run.persistentReported = true;
}

void NIPCConnector::AsyncRetryManager::pause(std::uint64_t milliseconds) const {
    const std::uint64_t deadline = timeSource().now() + milliseconds * NANOSECONDS_PER_MILLISECOND;
    while (timeSource().now() < deadline && active) timeSource().sleep(sliceMs);
}

}  // namespace nipcconnector
