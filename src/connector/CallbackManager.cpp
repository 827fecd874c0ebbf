#include "connector/CallbackManager.h"

#include <utility>

namespace nipcconnector {
namespace {

using Lock = std::lock_guard<std::mutex>;

// Removes an entry; the function in it dies after the lock, since its captures are the application's.
template <typename Map>
void removeEntry(std::mutex& mutex, Map& map, const typename Map::key_type& key) {
    typename Map::node_type removed;
    const Lock lock(mutex);
    removed = map.extract(key);
}

template <typename Map>
typename Map::mapped_type copyEntry(std::mutex& mutex, const Map& map, const std::string& key, bool& found) {
    const Lock lock(mutex);
    const auto entry = map.find(key);
    found = entry != map.end();
    return found ? entry->second : nullptr;
}

}  // namespace

// The functions that arrive by value below leave with the replaced one, which the caller then destroys.

std::uint64_t CallbackManager::registerCallback(smarthome::AsyncResponseCallback callback) {
    const Lock lock(callbackMutex);
    const std::uint64_t id = nextCallbackId++;
    callbacks[id].swap(callback);
    return id;
}

void CallbackManager::removeCallback(std::uint64_t id) { removeEntry(callbackMutex, callbacks, id); }

bool CallbackManager::executeCallback(std::uint64_t id, bool success, const char* data, unsigned int length) {
    smarthome::AsyncResponseCallback callback;
    {
        const Lock lock(callbackMutex);
        if (id == RecurringCallbackId && recurringCallback) {
            callback = recurringCallback;
        } else {
            const auto entry = callbacks.find(id);
            if (entry == callbacks.end()) return false;
            callback = std::move(entry->second);
            callbacks.erase(entry);
        }
    }
    callback(success, data, length);
    return true;
}

void CallbackManager::setRecurringCallback(smarthome::AsyncResponseCallback callback) {
    const Lock lock(callbackMutex);
    recurringCallback.swap(callback);
}

bool CallbackManager::hasRecurringCallback() const {
    const Lock lock(callbackMutex);
    return static_cast<bool>(recurringCallback);
}

FunctionId CallbackManager::getFunctionId(const std::string& name) {
    const Lock lock(functionIdMutex);
    const auto known = functionIds.find(name);
    if (known != functionIds.end()) return known->second;

    const FunctionId id = computeFunctionId(name);
    std::string& smallest = namesById.emplace(id, name).first->second;
    if (name < smallest) smallest = name;
    functionIds.emplace(name, id);  // Last: a name that is known here is not looked at again.
    return id;
}

std::string CallbackManager::getRequestName(FunctionId id) const {
    const Lock lock(functionIdMutex);
    const auto known = namesById.find(id);
    return known != namesById.end() ? known->second : std::string();
}

bool CallbackManager::registerEventHandler(const std::string& eventType, smarthome::EventHandler handler) {
    const Lock lock(eventMutex);
    eventHandlers[eventType].swap(handler);
    getFunctionId(eventType);
    return true;
}

void CallbackManager::unregisterEventHandler(const std::string& eventType) {
    removeEntry(eventMutex, eventHandlers, eventType);
}

bool CallbackManager::handleEvent(const std::string& eventType, const char* data, unsigned int length) {
    bool found = false;
    const smarthome::EventHandler handler = copyEntry(eventMutex, eventHandlers, eventType, found);
    if (found) handler(data, length);
    return found;
}

bool CallbackManager::registerSyncRequestHandler(const std::string& name, smarthome::SyncRequestHandler handler) {
    const Lock lock(handlerMutex);
    syncRequestHandlers[name].swap(handler);
    getFunctionId(name);
    return true;
}

bool CallbackManager::registerAsyncRequestHandler(const std::string& name, smarthome::AsyncRequestHandler handler) {
    const Lock lock(handlerMutex);
    asyncRequestHandlers[name].swap(handler);
    getFunctionId(name);
    return true;
}

void CallbackManager::unregisterSyncRequestHandler(const std::string& name) {
    removeEntry(handlerMutex, syncRequestHandlers, name);
}

void CallbackManager::unregisterAsyncRequestHandler(const std::string& name) {
    removeEntry(handlerMutex, asyncRequestHandlers, name);
}

std::vector<char> CallbackManager::invokeSyncRequestHandler(const std::string& name, const char* data,
                                                            unsigned int length) {
    bool found = false;
    const smarthome::SyncRequestHandler handler = copyEntry(handlerMutex, syncRequestHandlers, name, found);
    return found ? handler(data, length) : std::vector<char>();
}

bool CallbackManager::invokeAsyncRequestHandler(const std::string& name, const char* data, unsigned int length,
                                                const std::string& requestId, AsyncResponder responder) {
    bool found = false;
    const smarthome::AsyncRequestHandler handler = copyEntry(handlerMutex, asyncRequestHandlers, name, found);
    if (found) handler(data, length, std::move(responder), requestId);
    return found;
}

}  // namespace nipcconnector
