#include <utility>

#include "connector/CallbackManager.h"
#include "connector/Limits.h"
#include "connector/Log.h"
#include "connector/Registry.h"
#include "metrics/Dimensions.h"
#include "nipcconnector/NIPCConnector.h"

namespace nipcconnector {

using smarthome::RequestStatus;
using smarthome::SyncRequestResult;

namespace {

// The platform carries callback ids as pointers, which on the 32-bit target keeps the low half.
void* contextOf(std::uint64_t callbackId) { return reinterpret_cast<void*>(static_cast<std::uintptr_t>(callbackId)); }

}  // namespace

void NIPCConnector::countAsyncRequestFailure(const std::string& requestName, const char* reason, unsigned int length) {
    {
        const std::lock_guard<std::mutex> lock(statsMutex);
        ++asyncRequestFailureCount;
    }
    recordMetric("AsyncRequestFailure",
                 {stringDimension("RequestName", requestName), stringDimension("FailureReason", reason),
                  integerDimension("PayloadSize", length)});
}

void NIPCConnector::countSyncRequestFailure(const char* reason) {
    {
        const std::lock_guard<std::mutex> lock(statsMutex);
        ++syncRequestFailureCount;
    }
    recordMetric("SyncRequestFailure", {stringDimension("FailureReason", reason)});
}

RequestStatus NIPCConnector::makeAsyncRequest(const std::string& /*service*/, const std::string& requestName,
                                              const char* data, unsigned int length,
                                              smarthome::AsyncResponseCallback callback) {
    const std::shared_ptr<CallbackManager> manager = getCallbackManager(this);
    if (!manager) {
        countAsyncRequestFailure(requestName, "NoCallbackManager", length);
        return RequestStatus::Failure;
    }
    NIPC_LOG(logger, debug, "Sending async request with payload %s", PayloadText(data, length).c_str());
    const std::uint64_t id = manager->registerCallback(std::move(callback));
    NIPC_LOG(logger, debug, "Registered callback with id %llu", static_cast<unsigned long long>(id));
    bool sent = false;
    try {
        sent = nipcSendAsyncRequest(manager->getFunctionId(requestName), data, length, contextOf(id));
    } catch (...) {
        manager->removeCallback(id);
        throw;
    }
    if (sent) return RequestStatus::Success;
    NIPC_LOG(logger, error, "Failed to send async request, deregistering callback");
    manager->removeCallback(id);
    countAsyncRequestFailure(requestName, "SendRequestFailed", length);
    return RequestStatus::Failure;
}

SyncRequestResult NIPCConnector::makeSyncRequest(const std::string& /*service*/, const std::string& requestName,
                                                 const char* data, unsigned int length) {
    const std::shared_ptr<CallbackManager> manager = getCallbackManager(this);
    if (!manager) {
        countSyncRequestFailure("NoCallbackManager");
        return {};
    }
    NIPC_LOG(logger, debug, "Sending sync request with payload %s", PayloadText(data, length).c_str());
    std::vector<char> response(SyncResponseCapacity);
    unsigned int responseLength = SyncResponseCapacity;
    if (!nipcSendSyncRequest(manager->getFunctionId(requestName), data, length, response.data(), &responseLength)) {
        countSyncRequestFailure("SendRequestFailed");
        return {};
    }
    response.resize(responseLength);
    return {RequestStatus::Success, std::move(response)};
}

bool NIPCConnector::setRecurringCallback(smarthome::AsyncResponseCallback callback) {
    const std::shared_ptr<CallbackManager> manager = getCallbackManager(this);
    if (!manager) {
        NIPC_LOG(logger, error, "setRecurringCallback: No callback manager found");
        return false;
    }
    manager->setRecurringCallback(std::move(callback));
    NIPC_LOG(logger, info, "Registered persistent recurring callback with id %llu",
             static_cast<unsigned long long>(RecurringCallbackId));
    return true;
}

RequestStatus NIPCConnector::makeAsyncRequestWithRecurringCallback(const std::string& /*service*/,
                                                                   const std::string& requestName, const char* data,
                                                                   unsigned int length) {
    const std::shared_ptr<CallbackManager> manager = getCallbackManager(this);
    if (!manager) {
        NIPC_LOG(logger, error, "makeAsyncRequestWithRecurringCallback: No callback manager found");
        return RequestStatus::Failure;
    }
    if (!manager->hasRecurringCallback()) {
        NIPC_LOG(logger, error,
                 "makeAsyncRequestWithRecurringCallback: No recurring callback registered, call setRecurringCallback "
                 "first");
        return RequestStatus::Failure;
    }
    NIPC_LOG(logger, debug, "Sending async request with recurring callback id %llu",
             static_cast<unsigned long long>(RecurringCallbackId));
    if (nipcSendAsyncRequest(manager->getFunctionId(requestName), data, length, contextOf(RecurringCallbackId))) {
        return RequestStatus::Success;
    }
    NIPC_LOG(logger, error, "makeAsyncRequestWithRecurringCallback: Failed to send async request");
    countAsyncRequestFailure(requestName, "SendRecurringRequestFailed", length);
    return RequestStatus::Failure;
}

}  // namespace nipcconnector
