#include "connector/CallbackManager.h"
#include "connector/ConnectorGate.h"
#include "connector/ListenerParameter.h"
#include "connector/Log.h"
#include "connector/Registry.h"
#include "nipcconnector/NIPCConnector.h"

namespace nipcconnector {

int NIPCConnector::clientListener(nexNipc_parameter_t* param) {
    if (param == nullptr || param->userContext == nullptr) return -1;
    const ConnectorGate::Pin connector(param->userContext);
    if (!connector) return -1;
    callGuarded(connector->logger.get(), "Client listener", [&] { connector->dispatchToClient(*param); });
    return 0;
}

void NIPCConnector::dispatchToClient(nexNipc_parameter_t& param) {
    switch (param.type) {
        case SYNC_FUNCTION:
            NIPC_LOG(logger, debug, "Handle sync function");
            break;
        case ASYNC_FUNCTION:
            NIPC_LOG(logger, debug, "Handle async function");
            break;
        case CALLBACK:
            NIPC_LOG(logger, debug, "Handle callback");
            dispatchCallback(param);
            break;
        case EVENT:
            dispatchConnectionEvent(param);
            break;
        case BROADCAST_EVENT:
            NIPC_LOG(logger, debug, "Handle broadcast event");
            break;
        case MULTICAST_EVENT:
            NIPC_LOG(logger, debug, "Handle multicast event");
            break;
        case INVALID:
            NIPC_LOG(logger, debug, "Invalid NIPC callback");
            break;
        default:
            NIPC_LOG(logger, warn, "unhandled NIPC type: %d", static_cast<int>(param.type));
            break;
    }
}

void NIPCConnector::dispatchCallback(nexNipc_parameter_t& param) {
    switch (param.functionId) {
        case CLIENT_SHARE_FD_ID:
            processFd(&param);
            break;
        case SERVER_FD_PROCESSING_COMPLETED_ID:
            NIPC_LOG(logger, debug, "Handle server fd processing completed");
            acknowledgeTransfer();
            break;
        default:
            handleFunctionCallback(param.functionId, static_cast<const char*>(param.data), payloadLength(param),
                                   param.requestContext);
            break;
    }
}

void NIPCConnector::dispatchConnectionEvent(const nexNipc_parameter_t& param) {
    switch (param.eventId) {
        case NEX_NIPC_EVENT_CONNECTION_DONE:
            NIPC_LOG(logger, info, "NEX_NIPC_EVENT_CONNECTION_DONE with status: %d", static_cast<int>(statusOf(param)));
            handleConnectionResult(statusOf(param) == 0);
            break;
        case NEX_NIPC_EVENT_SERVER_DOWN:
            NIPC_LOG(logger, error, "NEX_NIPC_EVENT_SERVER_DOWN");
            handleServerDisconnection();
            break;
        case NEX_NIPC_EVENT_SERVER_UP:
            NIPC_LOG(logger, debug, "SERVER_UP event from UUID: %d", static_cast<int>(param.peerId));
            break;
        default:
            break;
    }
}

bool NIPCConnector::handleFunctionCallback(std::uint16_t functionId, const char* data, unsigned int length,
                                           void* context) {
    const std::shared_ptr<CallbackManager> manager = getCallbackManager(this);
    if (!manager) {
        NIPC_LOG(logger, error, "No callback manager found for this connector");
        return false;
    }
    bool found = true;  // Code that throws has run.
    if (context != nullptr) {
        const auto id = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(context));
        const bool success = functionId == ASYNC_RESPONSE_SUCCESS_ID;
        callGuarded(logger.get(), "Async response callback",
                    [&] { found = manager->executeCallback(id, success, data, length); });
        if (found) {
            NIPC_LOG(logger, debug, "Executed callback with id %llu, functionId %d",
                     static_cast<unsigned long long>(id), static_cast<int>(functionId));
        } else {
            NIPC_LOG(logger, error, "Callback not found with id %llu, functionId %d",
                     static_cast<unsigned long long>(id), static_cast<int>(functionId));
        }
        return found;
    }
    NIPC_LOG(logger, debug, "Proactive event");
    const std::string eventType = manager->getRequestName(functionId);
    callGuarded(logger.get(), "Event handler", [&] { found = manager->handleEvent(eventType, data, length); });
    if (found) {
        NIPC_LOG(logger, debug, "Handled event");
    } else {
        NIPC_LOG(logger, error, "Failed to handle event");
    }
    return found;
}

}  // namespace nipcconnector
