#include <cstring>
#include <memory>
#include <new>

#include "connector/CallbackManager.h"
#include "connector/Log.h"
#include "connector/Registry.h"
#include "metrics/Dimensions.h"
#include "nex_nipc.h"
#include "nipcconnector/NIPCConnector.h"
#include "transfer/SharedMemoryRegion.h"

namespace nipcconnector {
namespace {

struct RawDelete {
    void operator()(char* memory) const { ::operator delete(memory); }
};
using PrivateCopy = std::unique_ptr<char, RawDelete>;

// The peer can rewrite the region at any time, so it is read once, here. A zero follows the copy, for the log.
// Nothing when the region cannot be mapped or there is no memory.
PrivateCopy copyOut(std::int32_t descriptor, std::uint32_t length) {
    SharedMemoryRegion region;
    if (!region.mapReceived(descriptor, length)) return nullptr;
    PrivateCopy copy(static_cast<char*>(::operator new(static_cast<std::size_t>(length) + 1, std::nothrow)));
    if (copy) {
        region.copyTo(copy.get());
        copy.get()[length] = '\0';
    }
    return copy;
}

}  // namespace

bool NIPCConnector::processFd(nexNipc_parameter_t* param) {
    NIPC_LOG(logger, debug, "Processing fd");
    if (param == nullptr) {
        NIPC_LOG(logger, error, "invalid input");
        return failFd("InvalidInput", 0);
    }
    const auto* const message = static_cast<const ShareFdMsg*>(param->data);
    if (message == nullptr) {
        NIPC_LOG(logger, error, "invalid task buffer");
        return failFd("InvalidTaskBuffer", 0);
    }
    if (message->fds == nullptr) {
        NIPC_LOG(logger, error, "invalid file descriptor");
        return failFd("InvalidFileDescriptor", 0);
    }
    if (message->metadata == nullptr) {
        NIPC_LOG(logger, error, "invalid metadata");
        return failFd("InvalidMetadata", 0);
    }
    ShareFdMetadata metadata;
    std::memcpy(&metadata, message->metadata, sizeof(metadata));
    const std::uint32_t length = metadata.length;
    if (length == 0) {
        NIPC_LOG(logger, error, "invalid data length");
        return failFd("InvalidDataLength", 0);
    }

    const PrivateCopy payload = copyOut(message->fds[0], length);
    if (!payload) {
        NIPC_LOG(logger, error, "failed reading from file descriptor");
        return failFd("FailedReadingFromFd", length);
    }
    NIPC_LOG(logger, debug, "Received data: %s, length: %zu", payload.get(), static_cast<std::size_t>(length));

    // The sender waits for this: before any code of the application runs.
    if (!acknowledgeFd(param->peerId, length)) return false;
    void* const context = reinterpret_cast<void*>(static_cast<std::uintptr_t>(metadata.requestContext));
    return dispatchFd(param->peerId, metadata.functionId, payload.get(), length, context);
}

bool NIPCConnector::acknowledgeFd(std::uint16_t peerId, unsigned int length) {
    if (isClient) {
        NIPC_LOG(logger, debug, "Sending async ACK back to server");
        awaitHandle();
        if (nipcSendAsyncRequest(CLIENT_FD_PROCESSING_COMPLETED_ID, nullptr, 0, nullptr)) return true;
        NIPC_LOG(logger, error, "Failed to send async request to server");
        return failFd("FailedSendingAckToServer", length);
    }
    NIPC_LOG(logger, debug, "Sending ACK event to clientId %d", static_cast<int>(peerId));
    if (nipcSendEvent(peerId, SERVER_FD_PROCESSING_COMPLETED_ID, nullptr, 0, nullptr)) return true;
    NIPC_LOG(logger, error, "Failed to send event to clientId %d", static_cast<int>(peerId));
    return failFd("FailedSendingAckToClient", length);
}

bool NIPCConnector::dispatchFd(std::uint16_t peerId, std::uint16_t functionId, const char* data, unsigned int length,
                               void* requestContext) {
    if (isClient) {
        NIPC_LOG(logger, debug, "Handling function callback");
        if (handleFunctionCallback(functionId, data, length, requestContext)) return true;
        NIPC_LOG(logger, error, "Failed to handle function callback");
        return failFd("FailedHandlingFunctionCallback", length);
    }
    NIPC_LOG(logger, debug, "Handling async request");
    const std::shared_ptr<CallbackManager> manager = getCallbackManager(this);
    if (!manager) {
        NIPC_LOG(logger, error, "No callback manager found for this connector");
        return failFd("NoCallbackManagerFound", length);
    }
    const std::string requestName = manager->getRequestName(functionId);
    if (handleAsyncRequest(requestName, data, length, peerId, 0, requestContext)) return true;
    NIPC_LOG(logger, error, "Failed to handle async request");
    return failFd("FailedHandlingAsyncRequest", length);
}

bool NIPCConnector::failFd(const char* reason, unsigned int length) {
    recordMetric("processFd", {stringDimension("FailureReason", reason), integerDimension("PayloadSize", length)});
    return false;
}

}  // namespace nipcconnector
