#pragma once

#include <mutex>

#include "nipcconnector/NIPCConnector.h"

namespace nipcconnector {

/// The unit tests' view of the connector's members.
struct ConnectorTestAccess {
    struct State {
        bool connected, connecting;
        std::int32_t handle;
    };
    static State state(NIPCConnector& connector) {
        const std::lock_guard<std::mutex> lock(connector.connectionMutex);
        return {connector.isConnected, connector.isConnecting, connector.nipcHandle};
    }
    static bool fdAckReceived(NIPCConnector& connector) {
        const std::lock_guard<std::mutex> lock(connector.fdAckMutex);
        return connector.fdAckReceived;
    }
    static auto& retryManager(NIPCConnector& connector) { return connector.retryManager; }
    static std::mutex& statsMutex(NIPCConnector& connector) { return connector.statsMutex; }
    static auto& connectionStartTime(NIPCConnector& connector) { return connector.connectionStartTime; }
    static auto& asyncRequestFailureCount(NIPCConnector& connector) { return connector.asyncRequestFailureCount; }
    static auto& asyncRequestWhileDisconnectedCount(NIPCConnector& connector) {
        return connector.asyncRequestWhileDisconnectedCount;
    }
    static auto& syncRequestFailureCount(NIPCConnector& connector) { return connector.syncRequestFailureCount; }
    template <typename Manager>
    static auto& nextCallbackId(Manager& manager) {
        return manager.nextCallbackId;
    }
    static void recordMetric(NIPCConnector& connector, const std::string& name,
                             const std::vector<smarthome::TalvoraDimension>& dimensions) {
        connector.recordMetric(name, dimensions);
    }
    static bool deinitClient(NIPCConnector& connector) { return connector.deinitClient(); }
    static int clientListener(nexNipc_parameter_t* parameter) { return NIPCConnector::clientListener(parameter); }
    static bool processFd(NIPCConnector& connector, nexNipc_parameter_t* parameter) {
        return connector.processFd(parameter);
    }
    static bool sendLargePayload(NIPCConnector& connector, const char* data, unsigned int length) {
        return connector.sendLargePayload(2000, data, length, nullptr, 0);
    }
    static bool sendSync(NIPCConnector& connector, const char* payload, unsigned int length) {
        return connector.nipcSendSyncRequest(2000, payload, length, nullptr, nullptr);
    }
    static bool handleAsyncRequest(NIPCConnector& connector, const std::string& name) {
        return connector.handleAsyncRequest(name, nullptr, 0, 3, 0, nullptr);
    }
    static bool handleFunctionCallback(NIPCConnector& connector, std::uint16_t functionId) {
        return connector.handleFunctionCallback(functionId, nullptr, 0, nullptr);
    }
};

}  // namespace nipcconnector
