#include <algorithm>
#include <cstring>

#include "connector/CallbackManager.h"
#include "connector/ConnectedClients.h"
#include "connector/ConnectorGate.h"
#include "connector/Limits.h"
#include "connector/ListenerParameter.h"
#include "connector/Log.h"
#include "connector/Registry.h"
#include "nipcconnector/NIPCConnector.h"

namespace nipcconnector {

int NIPCConnector::serverListener(nexNipc_parameter_t* param) {
    if (param == nullptr || param->userContext == nullptr) return -1;
    const ConnectorGate::Pin connector(param->userContext);
    if (!connector) return -1;
    const std::shared_ptr<CallbackManager> manager = getCallbackManager(&*connector);
    if (!manager) return -1;
    connector->adoptServiceHandle();
    setStatus(*param, 0);
    int result = 0;
    if (!callGuarded(connector->logger.get(), "Server listener",
                     [&] { result = connector->dispatchToServer(*param, *manager); })) {
        setStatus(*param, -1);
    }
    return result;
}

int NIPCConnector::dispatchToServer(nexNipc_parameter_t& param, CallbackManager& manager) {
    switch (param.type) {
        case SYNC_FUNCTION:
            NIPC_LOG(logger, debug, "received sync function");
            return answerSyncRequest(param, manager);
        case ASYNC_FUNCTION:
            NIPC_LOG(logger, debug, "received async function");
            dispatchAsyncFunction(param, manager);
            break;
        case CALLBACK:
            NIPC_LOG(logger, debug, "received callback");
            break;
        case EVENT:
            trackClient(param);
            break;
        case BROADCAST_EVENT:
            NIPC_LOG(logger, debug, "received broadcast event");
            break;
        case MULTICAST_EVENT:
            NIPC_LOG(logger, debug, "received multicast event");
            break;
        case INVALID:
            NIPC_LOG(logger, debug, "Invalid NIPC type");
            break;
        default:
            NIPC_LOG(logger, warn, "unhandled NIPC type: %d", static_cast<int>(param.type));
            break;
    }
    return 0;
}

int NIPCConnector::answerSyncRequest(nexNipc_parameter_t& param, CallbackManager& manager) {
    const std::string requestName = manager.getRequestName(param.functionId);
    std::vector<char> response;
    callGuarded(logger.get(), "Sync request handler", [&] {
        response =
            manager.invokeSyncRequestHandler(requestName, static_cast<const char*>(param.data), payloadLength(param));
    });
    if (response.empty()) {
        NIPC_LOG(logger, error, "Failed to find sync handler for request type %s", requestName.c_str());
        setStatus(param, -1);
        return 0;
    }
    if (param.data == nullptr || response.size() > SyncResponseCapacity) {
        NIPC_LOG(logger, error, "Response size is greater than the buffer size");
        setStatus(param, -3);
        return -3;
    }
    if (param.length != nullptr) *param.length = static_cast<std::uint32_t>(response.size());
    NIPC_LOG(logger, debug, "Sending syncresponse to clientId %d with payload %s", static_cast<int>(param.peerId),
             PayloadText(response.data(), response.size()).c_str());
    std::memcpy(param.data, response.data(), response.size());
    return 0;
}

void NIPCConnector::dispatchAsyncFunction(nexNipc_parameter_t& param, CallbackManager& manager) {
    switch (param.functionId) {
        case SERVER_SHARE_FD_ID:
            NIPC_LOG(logger, debug, "received share fd function");
            if (!processFd(&param)) {
                NIPC_LOG(logger, error, "Failed to process fd");
                setStatus(param, -1);
            }
            break;
        case CLIENT_FD_PROCESSING_COMPLETED_ID:
            NIPC_LOG(logger, debug, "received client fd processing completed");
            acknowledgeTransfer();
            break;
        default:
            if (!handleAsyncRequest(manager.getRequestName(param.functionId), static_cast<const char*>(param.data),
                                    payloadLength(param), param.peerId, 0, param.requestContext)) {
                NIPC_LOG(logger, error, "Failed to handle async request");
                setStatus(param, -1);
            }
            break;
    }
}

void NIPCConnector::trackClient(const nexNipc_parameter_t& param) {
    ConnectedClients& clients = connectedClientSet();
    if (param.eventId == NEX_NIPC_EVENT_CLIENT_CONNECTED) {
        NIPC_LOG(logger, debug, "client %d is connected\n", static_cast<int>(param.peerId));
        const std::lock_guard<std::mutex> lock(clients.connectedClientsMutex);
        clients.connectedClients.insert(param.peerId);
    } else if (param.eventId == NEX_NIPC_EVENT_CLIENT_DISCONNECTED) {
        NIPC_LOG(logger, debug, "client %d is disconnected\n", static_cast<int>(param.peerId));
        const std::lock_guard<std::mutex> lock(clients.connectedClientsMutex);
        clients.connectedClients.erase(param.peerId);
    }
}

}  // namespace nipcconnector
