// What arrives at a connector.

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "SharedMemory.h"
#include "nex_nipc.h"
#include "nipcconnector/FunctionId.h"
#include "nipcconnector/testing/FakePlatform.h"

namespace nipcconnector::testing {
namespace {

constexpr std::size_t listenerBufferSize = 16384;

}  // namespace

Delivered FakePlatform::publish(const std::string& eventType, const std::string& payload, std::int32_t handle) {
    Message message;
    message.functionId = computeFunctionId(eventType);
    message.payload = payload;
    message.handle = handle;
    return deliver(message);
}

Delivered FakePlatform::answer(const Call& request, bool success, const std::string& payload) {
    Message message;
    message.functionId = success ? ASYNC_RESPONSE_SUCCESS_ID : ASYNC_RESPONSE_FAILURE_ID;
    message.payload = payload;
    message.requestContext = request.requestContext;
    message.handle = request.handle;
    return deliver(message);
}

Delivered FakePlatform::endService(std::int32_t handle) {
    Message message;
    message.type = EVENT;
    message.eventId = NEX_NIPC_EVENT_SERVER_DOWN;
    message.handle = handle;
    return deliver(message);
}

Delivered FakePlatform::deliver(const Message& message) {
    const Endpoint target = endpoint(message.handle);
    const auto listener = message.listener != nullptr ? message.listener : target.listener;
    if (listener == nullptr) return {-ENOTCONN, 0, 0, {}};

    std::vector<char> buffer(std::max(listenerBufferSize, message.payload.size()));
    std::copy(message.payload.begin(), message.payload.end(), buffer.begin());
    Delivered delivered{0, message.status, static_cast<std::uint32_t>(message.payload.size()), {}};
    nexNipc_parameter_t parameter{};
    parameter.peerId = message.peerId;
    parameter.type = message.type;
    parameter.functionId = message.functionId;
    parameter.eventId = message.eventId;
    parameter.userContext = message.userContext != nullptr ? message.userContext : target.userContext;
    parameter.requestContext = reinterpret_cast<void*>(message.requestContext);
    if (!message.nullPointers) {
        parameter.length = &delivered.length;
        parameter.status = &delivered.status;
        parameter.data = message.share != nullptr ? static_cast<void*>(message.share) : buffer.data();
    }
    delivered.result = listener(&parameter);
    delivered.data.assign(buffer.data(), std::min<std::size_t>(delivered.length, buffer.size()));
    return delivered;
}

Delivered FakePlatform::deliverEvent(std::uint16_t eventId, std::uint16_t peerId, std::int32_t status) {
    return deliver({EVENT, peerId, 0, eventId, {}, 0, status});
}

Delivered FakePlatform::deliverCallback(std::uint16_t functionId, const std::string& payload, std::uintptr_t context) {
    return deliver({CALLBACK, 0, functionId, 0, payload, context});
}

Delivered FakePlatform::deliverRequest(std::uint32_t type, std::uint16_t functionId, const std::string& payload,
                                       std::uint16_t clientId, std::uintptr_t context) {
    return deliver({type, clientId, functionId, 0, payload, context, -1});
}

Delivered FakePlatform::deliverShare(const SharedMessage& shared) {
    ShareFdMetadata metadata{shared.claimedLength.value_or(static_cast<std::uint32_t>(shared.payload.size())),
                             shared.functionId, shared.requestContext};
    std::int32_t descriptor = shared.descriptor.value_or(-1);  // The listener closes it.
    if (!shared.descriptor) {
        descriptor = makeSharedMemory("nipc_connector_payload", shared.payload.size());
        if (pwrite(descriptor, shared.payload.data(), shared.payload.size(), 0) < 0) return {-EIO, 0, 0, {}};
    }
    ShareFdMsg share{1, sizeof metadata, shared.nullDescriptors ? nullptr : &descriptor,
                     shared.nullMetadata ? nullptr : &metadata, 0};
    Message message = shared.message;
    const bool toServer = endpoint(message.handle).isServer;
    message.type = toServer ? ASYNC_FUNCTION : CALLBACK;
    message.functionId = toServer ? SERVER_SHARE_FD_ID : CLIENT_SHARE_FD_ID;
    message.share = &share;
    return deliver(message);
}

Delivered FakePlatform::deliverAcknowledgement(std::uint16_t clientId, std::int32_t handle) {
    Message message;
    message.handle = handle;
    message.peerId = clientId;
    const bool toServer = endpoint(handle).isServer;
    message.type = toServer ? ASYNC_FUNCTION : CALLBACK;
    message.functionId = toServer ? CLIENT_FD_PROCESSING_COMPLETED_ID : SERVER_FD_PROCESSING_COMPLETED_ID;
    return deliver(message);
}

}  // namespace nipcconnector::testing
