#include <utility>

#include "connector/CallbackManager.h"
#include "connector/Log.h"
#include "connector/Registry.h"
#include "nipcconnector/NIPCConnector.h"

namespace nipcconnector {

bool NIPCConnector::subscribeForEvent(const std::string& /*publisher*/, const std::string& eventType,
                                      smarthome::EventHandler handler) {
    const std::shared_ptr<CallbackManager> manager = getCallbackManager(this);
    if (!manager) return false;
    NIPC_LOG(logger, info, "Registering event handler for eventType=%s", eventType.c_str());
    return manager->registerEventHandler(eventType, std::move(handler));
}

bool NIPCConnector::unsubscribeForEvent(const std::string& /*publisher*/, const std::string& eventType) {
    const std::shared_ptr<CallbackManager> manager = getCallbackManager(this);
    if (!manager) return false;
    NIPC_LOG(logger, info, "Unregistering event handler for eventType=%s", eventType.c_str());
    manager->unregisterEventHandler(eventType);
    return true;
}

bool NIPCConnector::unsubscribeFromPublisher(const std::string& /*publisher*/) {
    NIPC_LOG(logger, warn, "Unsubscribe from publisher not implemented");
    return true;
}

}  // namespace nipcconnector
