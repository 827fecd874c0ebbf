#include <exception>
#include <utility>

#include "connector/ConnectorGate.h"
#include "connector/Limits.h"
#include "connector/Log.h"
#include "connector/RetryWorker.h"
#include "connector/TimeSource.h"
#include "nipcconnector/NIPCConnector.h"

namespace nipcconnector {

NIPCConnector::AsyncRetryManager::AsyncRetryManager(NIPCConnector* owner) : connector(owner) {}

NIPCConnector::AsyncRetryManager::~AsyncRetryManager() { stopRetry(); }

bool NIPCConnector::AsyncRetryManager::startRetry(std::function<std::int32_t()> newOperation,
                                                  const std::string& newOperationName) {
    bool starts = false;
    std::string newName = newOperationName;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        starts = !active.exchange(true);
        // Who ends the connector closes it first and clears `active` then: either he sees this start, or it sees him.
        if (!ConnectorGate::isOpen(connector)) {
            if (starts) active = false;
            return false;
        }
        startRefused = !starts;
        (starts ? operation : refusedOperation).swap(newOperation);
        (starts ? operationName : refusedName).swap(newName);
        if (starts) {
            threadFinished = false;
            attemptCount = 0;
            startTime = timeSource().now();
        }
    }
    if (!starts) {
        NIPC_LOG(connector->logger, warn, "Retry already in progress for %s", newOperationName.c_str());
        return true;
    }
    NIPC_LOG(connector->logger, debug, "Starting non-blocking retry for %s", newOperationName.c_str());
    while (!startWorker(newOperationName)) {
        const std::lock_guard<std::mutex> lock(mutex);
        if (takeRefusedStart()) continue;  // Its caller relies on the worker that this one could not create.
        active = false;
        threadFinished = true;
        condition.notify_all();
        return false;
    }
    return true;
}

bool NIPCConnector::AsyncRetryManager::startWorker(const std::string& forOperation) {
    try {
        std::thread worker([address = connector, manager = this] {
            const ConnectorGate::Pin pin(address, ConnectorGate::Visitor::RetryThread);
            if (pin) manager->retryWorkerThread();
        });
        const std::lock_guard<std::mutex> lock(mutex);
        workerThread = std::move(worker);
        workerThread.detach();
        return true;
    } catch (const std::exception& failure) {
        NIPC_LOG(connector->logger, error, "Failed to start the retry thread for %s: %s", forOperation.c_str(),
                 failure.what());
        return false;
    }
}

// Puts a start that was refused in the place of the one that ends; false when there is none. Under `mutex`.
bool NIPCConnector::AsyncRetryManager::takeRefusedStart() {
    if (!startRefused) return false;
    startRefused = false;
    operation.swap(refusedOperation);
    operationName.swap(refusedName);
    attemptCount = 0;
    startTime = timeSource().now();
    return true;
}

void NIPCConnector::AsyncRetryManager::stopRetry() {
    if (requestStop()) awaitStop(stopDeadline());
}

bool NIPCConnector::AsyncRetryManager::requestStop() {
    if (!active.exchange(false)) return false;
    NIPC_LOG(connector->logger, debug, "Stopping retry timer thread");
    return true;
}

std::uint64_t NIPCConnector::AsyncRetryManager::stopDeadline() {
    return timeSource().now() + 500 * NANOSECONDS_PER_MILLISECOND;
}

void NIPCConnector::AsyncRetryManager::awaitStop(std::uint64_t deadline) {
    if (isRetryThreadOf(this)) return;  // The process is being ended by the worker itself.
    bool finished = false;
    {
        std::unique_lock<std::mutex> lock(mutex);
        while (!threadFinished && timeSource().waitUntil(condition, lock, deadline) == std::cv_status::no_timeout) {
        }
        finished = threadFinished;
    }
    if (finished) {
        NIPC_LOG(connector->logger, debug, "Retry thread finished successfully");
    } else {
        NIPC_LOG(connector->logger, warn, "Retry thread didn't finish within timeout");
    }
}

bool NIPCConnector::AsyncRetryManager::isActive() const { return active.load(); }

void NIPCConnector::AsyncRetryManager::forgetRefusedStart() {
    const std::lock_guard<std::mutex> lock(mutex);
    startRefused = false;
}

}  // namespace nipcconnector
