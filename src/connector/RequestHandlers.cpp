#include <utility>

#include "connector/CallbackManager.h"
#include "connector/ConnectorGate.h"
#include "connector/Log.h"
#include "connector/Registry.h"
#include "nex_nipc.h"
#include "nipcconnector/NIPCConnector.h"

namespace nipcconnector {

bool NIPCConnector::registerSyncRequestHandler(const std::string& requestName, smarthome::SyncRequestHandler handler) {
    const std::shared_ptr<CallbackManager> manager = getCallbackManager(this);
    if (!manager) return false;
    NIPC_LOG(logger, debug, "Registering sync request handler for request type %s", requestName.c_str());
    return manager->registerSyncRequestHandler(requestName, std::move(handler));
}

bool NIPCConnector::registerAsyncRequestHandler(const std::string& requestName,
                                                smarthome::AsyncRequestHandler handler) {
    const std::shared_ptr<CallbackManager> manager = getCallbackManager(this);
    if (!manager) return false;
    NIPC_LOG(logger, debug, "Registering async request handler for request type %s", requestName.c_str());
    return manager->registerAsyncRequestHandler(requestName, std::move(handler));
}

void NIPCConnector::unregisterSyncRequestHandler(const std::string& requestName) {
    const std::shared_ptr<CallbackManager> manager = getCallbackManager(this);
    if (!manager) return;
    NIPC_LOG(logger, debug, "Unregistering sync request handler for request type %s", requestName.c_str());
    manager->unregisterSyncRequestHandler(requestName);
}

void NIPCConnector::unregisterAsyncRequestHandler(const std::string& requestName) {
    const std::shared_ptr<CallbackManager> manager = getCallbackManager(this);
    if (!manager) return;
    NIPC_LOG(logger, debug, "Unregistering async request handler for request type %s", requestName.c_str());
    manager->unregisterAsyncRequestHandler(requestName);
}

bool NIPCConnector::handleAsyncRequest(const std::string& requestName, const char* data, unsigned int length,
                                       std::uint16_t clientId, std::uint16_t /*reserved*/, void* requestContext) {
    NIPC_LOG(logger, debug, "Handling async request with request name %s", requestName.c_str());
    const std::shared_ptr<CallbackManager> manager = getCallbackManager(this);
    if (!manager) {
        NIPC_LOG(logger, error, "No callback manager found for this connector");
        return false;
    }
    const auto context = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(requestContext));
    const std::string requestId = std::to_string(clientId) + "_" + std::to_string(context);
    // Handlers may keep the responder for longer than the connector lives.
    CallbackManager::AsyncResponder responder = [address = this, requestContext, clientId](
                                                    bool success, const char* answer, unsigned int answerLength) {
        const ConnectorGate::Pin connector(address);
        if (connector) connector->sendAsyncResponse(clientId, success, answer, answerLength, requestContext);
    };
    bool found = false;
    const bool returned = callGuarded(logger.get(), "Async request handler", [&] {
        found = manager->invokeAsyncRequestHandler(requestName, data, length, requestId, std::move(responder));
    });
    if (!returned) return false;
    if (!found) NIPC_LOG(logger, error, "Failed to find async handler for request name %s", requestName.c_str());
    return found;
}

void NIPCConnector::sendAsyncResponse(std::uint16_t clientId, bool success, const char* data, unsigned int length,
                                      void* requestContext) {
    NIPC_LOG(logger, debug, "Sending async response to clientId %d with payload %s", static_cast<int>(clientId),
             PayloadText(data, length).c_str());
    nipcSendEvent(clientId, success ? ASYNC_RESPONSE_SUCCESS_ID : ASYNC_RESPONSE_FAILURE_ID, data, length,
                  requestContext);
}

}  // namespace nipcconnector
