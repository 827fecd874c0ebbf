#include <memory>
#include <new>

#include "connector/ConnectorGuards.h"
#include "connector/Limits.h"
#include "connector/Log.h"
#include "connector/TimeSource.h"
#include "metrics/Dimensions.h"
#include "nex_nipc.h"
#include "nipcconnector/NIPCConnector.h"
#include "transfer/SharedMemoryRegion.h"

namespace nipcconnector {
namespace {

bool isCarried(unsigned int length) { return length > 0 && length <= MAX_LARGE_PAYLOAD_SIZE; }

}  // namespace

bool NIPCConnector::sendLargePayload(std::uint16_t functionId, const char* data, unsigned int length,
                                     void* requestContext, std::uint16_t targetClientId) {
    const std::lock_guard<std::mutex> oneAtATime(guards->transferGate);
    if (data == nullptr) {
        NIPC_LOG(logger, error, "invalid input");
        return failLargePayload("InvalidInput", length);
    }

    SharedMemoryRegion region;
    if (!isCarried(length) || !region.create(length) || !region.fill(data)) {
        NIPC_LOG(logger, error, "Failed to create shared memory resource");
        return failLargePayload("SharedMemoryCreationFailed", length);
    }
    {
        const std::lock_guard<std::mutex> lock(fdAckMutex);
        fdAckReceived = false;
    }
    const std::unique_ptr<ShareFdMsg> message(new (std::nothrow) ShareFdMsg{});
    if (!message) {
        NIPC_LOG(logger, error, "failed to create a share fd msg");
        return failLargePayload("SharedFdMsgCreationFailed", length);
    }
    const std::unique_ptr<ShareFdMetadata> metadata(new (std::nothrow) ShareFdMetadata{});
    if (!metadata) {
        NIPC_LOG(logger, error, "failed to alloc metadata");
        return failLargePayload("MetadataAllocationFailed", length);
    }
    metadata->length = length;
    metadata->functionId = functionId;
    metadata->requestContext = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(requestContext));

    const std::unique_ptr<std::int32_t> descriptors(new (std::nothrow) std::int32_t(region.descriptor));
    if (!descriptors) {
        NIPC_LOG(logger, error, "failed to alloc a shared fd list");
        return failLargePayload("FdsAllocationFailed", length);
    }
    message->fdCount = 1;
    message->metadataSize = sizeof(ShareFdMetadata);
    message->fds = descriptors.get();
    message->metadata = metadata.get();
    return shareAndWait(*message, length, targetClientId);
}

bool NIPCConnector::shareAndWait(ShareFdMsg& message, unsigned int length, std::uint16_t targetClientId) {
    const std::int32_t handle = currentHandle();
    const nex_status_t status =
        isClient ? nexNipc_clientShareFd(handle, &message) : nexNipc_serviceShareFd(handle, targetClientId, &message);
    if (status != 0) {
        NIPC_LOG(logger, error, "Failed to send file descriptor request");
        acknowledgeTransfer();  // So that no later waiter mistakes the state.
        return failLargePayload("SendingFdViaNipcFailed", length);
    }
    bool acknowledged = false;
    {
        const std::uint64_t deadline = timeSource().now() + FD_ACK_TIMEOUT_NS;
        std::unique_lock<std::mutex> lock(fdAckMutex);
        while (!fdAckReceived && timeSource().waitUntil(fdAckCondition, lock, deadline) == std::cv_status::no_timeout) {
        }
        acknowledged = fdAckReceived;
    }
    if (acknowledged) return true;
    NIPC_LOG(logger, error, "Timed out waiting for FD processing ACK from receiver.");
    return failLargePayload("AckTimeout", length);
}

void NIPCConnector::acknowledgeTransfer() {
    {
        const std::lock_guard<std::mutex> lock(fdAckMutex);
        fdAckReceived = true;
    }
    fdAckCondition.notify_one();
}

bool NIPCConnector::failLargePayload(const char* reason, unsigned int length) {
    recordMetric("sendLargePayload",
                 {stringDimension("FailureReason", reason), integerDimension("PayloadSize", length)});
    return false;
}

}  // namespace nipcconnector
