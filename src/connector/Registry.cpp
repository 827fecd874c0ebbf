#include "connector/Registry.h"

#include <algorithm>
#include <new>
#include <utility>
#include <vector>

#include "connector/ConnectorGate.h"
#include "connector/TimeSource.h"

namespace nipcconnector {
namespace {

struct TearDownAtExit {
    Registry& target;
    explicit TearDownAtExit(Registry& registryToEmpty) : target(registryToEmpty) {}
    ~TearDownAtExit() { target.tearDown(); }
    TearDownAtExit(const TearDownAtExit&) = delete;
    TearDownAtExit& operator=(const TearDownAtExit&) = delete;
};

}  // namespace

Registry& registry() {
    static Registry& instance = *new Registry;
    static const TearDownAtExit atExit(instance);
    return instance;
}

std::shared_ptr<CallbackManager> getCallbackManager(NIPCConnector* connector) {
    Registry& all = registry();
    const std::lock_guard<std::mutex> lock(all.instancesMutex);
    const auto found = all.callbackManagers.find(connector);
    return found != all.callbackManagers.end() ? found->second : nullptr;
}

void Registry::erase(NIPCConnector* connector) {
    std::shared_ptr<CallbackManager> manager;  // Dies after the lock, and with it what the application stored.
    std::shared_ptr<NIPCConnector> instance;
    const std::lock_guard<std::mutex> lock(instancesMutex);
    const auto managed = callbackManagers.find(connector);
    if (managed != callbackManagers.end()) {
        manager = std::move(managed->second);
        callbackManagers.erase(managed);
    }
    const auto registered = std::find_if(instances.begin(), instances.end(),
                                         [connector](const auto& entry) { return entry.second.get() == connector; });
    if (registered != instances.end()) {
        instance = std::move(registered->second);
        instances.erase(registered);
    }
}

void Registry::tearDown() {
    decltype(instances) lastInstances;
    decltype(callbackManagers) lastManagers;
    {
        const std::lock_guard<std::mutex> lock(instancesMutex);
        closed = true;
        lastInstances.swap(instances);
        lastManagers.swap(callbackManagers);
    }
    lastManagers.clear();

    std::vector<std::shared_ptr<NIPCConnector>> connectors;
    for (auto& entry : lastInstances) connectors.push_back(std::move(entry.second));
    NIPCConnector::stopAll(connectors);
    ConnectorGate::releaseOrKeep(connectors.data(), connectors.size());
}

void NIPCConnector::stopAll(const std::vector<std::shared_ptr<NIPCConnector>>& connectors) {
    std::vector<AsyncRetryManager*> stopping;
    for (const auto& connector : connectors) {
        ConnectorGate::close(connector.get());
        if (connector->retryManager.requestStop()) stopping.push_back(&connector->retryManager);
    }
    const std::uint64_t deadline = AsyncRetryManager::stopDeadline();
    for (AsyncRetryManager* manager : stopping) manager->awaitStop(deadline);
}

std::shared_ptr<NIPCConnector> NIPCConnector::getInstance(bool isClient, const std::string& name,
                                                          const NIPCServiceConfig& config,
                                                          std::unique_ptr<ILogger> logger,
                                                          std::unique_ptr<IMetricsRecorder> metricsRecorder) {
    // Declared outside the lock: a connector that cannot be registered takes it when it is destroyed.
    std::unique_ptr<NIPCConnector> built;
    std::shared_ptr<NIPCConnector> connector;
    std::shared_ptr<CallbackManager> manager;
    try {
        const std::string key = (isClient ? "client:" : "server:") + name;
        Registry& all = registry();
        const std::lock_guard<std::mutex> lock(all.instancesMutex);
        if (all.closed) return nullptr;
        const auto existing = all.instances.find(key);
        if (existing != all.instances.end()) return existing->second;

        built.reset(new (std::nothrow)
                        NIPCConnector(isClient, name, config, std::move(logger), std::move(metricsRecorder)));
        if (!built) return nullptr;
        connector = std::move(built);
        manager = std::make_shared<CallbackManager>();
        all.callbackManagers[connector.get()].swap(manager);
        all.instances.emplace(key, connector);
        ConnectorGate::adopt(connector);
        return connector;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

}  // namespace nipcconnector
