#include <algorithm>
#include <limits>

#include "connector/CallbackManager.h"
#include "connector/ConnectedClients.h"
#include "connector/Limits.h"
#include "connector/Log.h"
#include "connector/Registry.h"
#include "metrics/Dimensions.h"
#include "nex_nipc.h"
#include "nipcconnector/NIPCConnector.h"

namespace nipcconnector {

bool NIPCConnector::publishEvent(const std::string& eventType) { return publishEvent(eventType, nullptr, 0); }

bool NIPCConnector::publishEvent(const std::string& eventType, const std::string& data) {
    // Of a string whose length is beyond the type the greatest length is refused, where a cut one might pass.
    const std::size_t length = std::min<std::size_t>(data.size(), std::numeric_limits<unsigned int>::max());
    return publishEvent(eventType, data.data(), static_cast<unsigned int>(length));
}

bool NIPCConnector::publishEvent(const std::string& eventType, const char* data, unsigned int length) {
    const std::shared_ptr<CallbackManager> manager = getCallbackManager(this);
    if (!manager) return false;
    std::vector<std::uint16_t> receivers;
    {
        ConnectedClients& clients = connectedClientSet();
        const std::lock_guard<std::mutex> lock(clients.connectedClientsMutex);
        receivers.assign(clients.connectedClients.begin(), clients.connectedClients.end());
    }
    NIPC_LOG(logger, debug, "Publishing event %s with data size %zu to %zu clients", eventType.c_str(),
             static_cast<std::size_t>(length), receivers.size());
    for (const std::uint16_t clientId : receivers) {
        nipcSendEvent(clientId, manager->getFunctionId(eventType), data, length, nullptr);
    }
    return true;
}

bool NIPCConnector::nipcSendEvent(std::uint16_t clientId, std::uint16_t functionId, const char* data,
                                  unsigned int length, void* requestContext) {
    const char* const kind = requestContext != nullptr ? "async response" : "event";
    NIPC_LOG(logger, debug, "Sending %s to clientId %d with payloadSize %zu", kind, static_cast<int>(clientId),
             static_cast<std::size_t>(length));
    if (length >= MAX_PAYLOAD_SIZE) {
        NIPC_LOG(logger, info, "Payload size is greater than the max payload size, sending large payload");
        if (sendLargePayload(functionId, data, length, requestContext, clientId)) return true;
        NIPC_LOG(logger, error, "Failed to send large payload");
        return false;
    }
    CallbackRecord record{};
    record.functionId = functionId;
    record.payload = data;
    record.length = length;
    record.requestContext = requestContext;
    const nex_status_t status = nexNipc_callback(currentHandle(), clientId, &record);
    if (status == 0) return true;
    NIPC_LOG(logger, error, "Failed to send %s to clientId %d, status: %d", kind, static_cast<int>(clientId),
             static_cast<int>(status));
    recordMetric("EventSendFailure",
                 {stringDimension("FailureReason", "NipcCallbackFailedWithStatus" + std::to_string(status)),
                  stringDimension("RequestType", requestContext != nullptr ? "AsyncResponse" : "Event"),
                  integerDimension("PayloadSize", length)});
    return false;
}

}  // namespace nipcconnector
