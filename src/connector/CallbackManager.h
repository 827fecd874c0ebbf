#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "nipcconnector/FunctionId.h"
#include "smarthome/ConnectorTypes.h"

namespace nipcconnector {

/// The callback id of the recurring callback.
constexpr std::uint64_t RecurringCallbackId = 1;

/// Everything of one connector that maps names and numbers to code. Thread-safe.
///
/// Stored functions are called, and what is replaced or removed is destroyed, with no mutex of the manager
/// held. What they throw comes out of the operation that called them.
class CallbackManager {
public:
    using AsyncResponder = smarthome::AsyncResponseCallback;

    /// Keeps a one-shot callback; returns its id, from 2 on.
    std::uint64_t registerCallback(smarthome::AsyncResponseCallback callback);
    void removeCallback(std::uint64_t id);
    /// Runs the callback with this id, once, or the recurring one. False when there is none.
    bool executeCallback(std::uint64_t id, bool success, const char* data, unsigned int length);
    void setRecurringCallback(smarthome::AsyncResponseCallback callback);
    bool hasRecurringCallback() const;

    /// The identifier of a name, which getRequestName can turn back from now on.
    FunctionId getFunctionId(const std::string& name);
    /// The smallest name with this identifier that getFunctionId has seen; empty when there is none.
    std::string getRequestName(FunctionId id) const;

    bool registerEventHandler(const std::string& eventType, smarthome::EventHandler handler);
    void unregisterEventHandler(const std::string& eventType);
    bool handleEvent(const std::string& eventType, const char* data, unsigned int length);

    bool registerSyncRequestHandler(const std::string& name, smarthome::SyncRequestHandler handler);
    bool registerAsyncRequestHandler(const std::string& name, smarthome::AsyncRequestHandler handler);
    void unregisterSyncRequestHandler(const std::string& name);
    void unregisterAsyncRequestHandler(const std::string& name);
    /// The handler's answer; empty when there is no handler.
    std::vector<char> invokeSyncRequestHandler(const std::string& name, const char* data, unsigned int length);
    /// False when there is no handler.
    bool invokeAsyncRequestHandler(const std::string& name, const char* data, unsigned int length,
                                   const std::string& requestId, AsyncResponder responder);

private:
    friend struct ConnectorTestAccess;

    mutable std::mutex callbackMutex;
    std::map<std::uint64_t, smarthome::AsyncResponseCallback> callbacks;
    std::uint64_t nextCallbackId = 2;
    std::mutex handlerMutex;
    std::map<std::string, smarthome::SyncRequestHandler> syncRequestHandlers;
    std::map<std::string, smarthome::AsyncRequestHandler> asyncRequestHandlers;
    std::mutex eventMutex;
    std::map<std::string, smarthome::EventHandler> eventHandlers;
    std::map<std::string, FunctionId> functionIds;
    smarthome::AsyncResponseCallback recurringCallback;

    /// A leaf, taken under the handler and the event mutex: guards `functionIds` and its reverse, which
    /// holds the smallest name of each identifier.
    mutable std::mutex functionIdMutex;
    std::unordered_map<FunctionId, std::string> namesById;
};

}  // namespace nipcconnector
