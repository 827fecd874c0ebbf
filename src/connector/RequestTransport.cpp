#include <algorithm>

#include "connector/ConnectorGuards.h"
#include "connector/Limits.h"
#include "connector/Log.h"
#include "connector/TimeSource.h"
#include "metrics/Dimensions.h"
#include "nex_nipc.h"
#include "nipcconnector/NIPCConnector.h"

namespace nipcconnector {

// The listener may hear of the success before the attempt has brought the handle home. Under connectionMutex.
bool NIPCConnector::isHandlePending() const { return isConnected && nipcHandle == -1; }

// For the listener, whose acknowledgement would be lost with the handle on its way: that takes no longer than the
// retry thread's next turn.
void NIPCConnector::awaitHandle() {
    const std::uint64_t deadline = timeSource().now() + 500 * NANOSECONDS_PER_MILLISECOND;
    std::unique_lock<std::mutex> lock(connectionMutex);
    while (isHandlePending() &&
           timeSource().waitUntil(guards->attemptEnded, lock, deadline) == std::cv_status::no_timeout) {
    }
}

// The handle to send on; or false, after having refused the request and seen to a reconnection.
bool NIPCConnector::takeConnection(bool isAsync, std::int32_t& handle) {
    std::unique_lock<std::mutex> lock(connectionMutex);
    const bool handlePending = isHandlePending();
    if (isConnected && !handlePending) {
        handle = nipcHandle;
        return true;
    }
    if (isAsync) {
        const std::lock_guard<std::mutex> stats(statsMutex);
        ++asyncRequestWhileDisconnectedCount;
    }
    const bool connecting = isConnecting || handlePending;
    recordMetric("RequestWhileDisconnected",
                 {stringDimension("RequestType", isAsync ? "Async" : "Sync"),
                  stringDimension("ConnectionState", connecting ? "Reconnecting" : "Disconnected")});
    if (connecting) {
        NIPC_LOG(logger, debug, "Connection in progress, request cannot be sent now");
        return false;
    }
    NIPC_LOG(logger, debug, "Not connected to service, attempting to reconnect on request");
    lock.unlock();
    if (!initClient()) NIPC_LOG(logger, error, "Failed to initiate reconnection");
    return false;
}

bool NIPCConnector::nipcSendAsyncRequest(std::uint16_t functionId, const char* payload, unsigned int length,
                                         void* context) {
    std::int32_t handle = -1;
    if (!takeConnection(true, handle)) return false;
    if (length >= MAX_PAYLOAD_SIZE) {
        NIPC_LOG(logger, info, "Payload length is greater than the max payload size, sending large payload");
        if (sendLargePayload(functionId, payload, length, context, 0)) return true;
        NIPC_LOG(logger, error, "Failed to send large payload");
        return false;
    }
    AsyncRpcRecord record{};
    record.functionId = functionId;
    record.payload = payload;
    record.length = length;
    record.functionIdAgain = functionId;
    record.requestContext = context;
    NIPC_LOG(logger, debug, "Sending async request via NIPC");
    const nex_status_t status = nexNipc_rpcAsync(handle, &record);
    if (status == 0) return true;
    NIPC_LOG(logger, error, "Failed to send async request, status: %d", static_cast<int>(status));
    return false;
}

bool NIPCConnector::nipcSendSyncRequest(std::uint16_t functionId, const char* payload, unsigned int length,
                                        char* response, unsigned int* responseLength) {
    std::int32_t handle = -1;
    if (!takeConnection(false, handle)) return false;
    const unsigned int capacity = responseLength != nullptr ? *responseLength : 0;
    if (responseLength != nullptr) *responseLength = 0;

    SyncRpcRecord record{};
    record.functionId = functionId;
    record.payload = payload;
    record.length = length;
    record.response = response;
    record.responseLength = capacity;
    record.status = 1;
    const nex_status_t status = nexNipc_rpcSync(handle, &record);
    if (status != 0) {
        NIPC_LOG(logger, error, "reason=RPCSyncFailed, status=%d", static_cast<int>(status));
        return false;
    }
    if (record.status != 0) {
        NIPC_LOG(logger, error, "reason=RPCSyncFailed, rpc_params.status=%d", static_cast<int>(record.status));
        return false;
    }
    if (responseLength != nullptr) *responseLength = std::min<unsigned int>(record.responseLength, capacity);
    return true;
}

}  // namespace nipcconnector
