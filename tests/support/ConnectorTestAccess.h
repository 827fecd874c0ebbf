#pragma once

#include <mutex>

#include "nipcconnector/NIPCConnector.h"

namespace nipcconnector {

/// The unit tests' view of the connector's members.
struct ConnectorTestAccess {
    using C = NIPCConnector;
    struct State {
        bool connected, connecting;
        std::int32_t handle;
    };
    static State state(C& c) {
        const std::lock_guard<std::mutex> lock(c.connectionMutex);
        return {c.isConnected, c.isConnecting, c.nipcHandle};
    }
    static bool fdAckReceived(C& c) {
        const std::lock_guard<std::mutex> lock(c.fdAckMutex);
        return c.fdAckReceived;
    }
    static auto& retryManager(C& c) { return c.retryManager; }
    static auto& connectionStartTime(C& c) { return c.connectionStartTime; }
    static auto& asyncRequestFailureCount(C& c) { return c.asyncRequestFailureCount; }
    static auto& asyncRequestWhileDisconnectedCount(C& c) { return c.asyncRequestWhileDisconnectedCount; }
    static auto& syncRequestFailureCount(C& c) { return c.syncRequestFailureCount; }
    template <typename Manager>
    static auto& nextCallbackId(Manager& manager) {
        return manager.nextCallbackId;
    }
    static bool deinitClient(C& c) { return c.deinitClient(); }
    static int clientListener(nexNipc_parameter_t* parameter) { return C::clientListener(parameter); }
    static bool processFd(C& c, nexNipc_parameter_t* parameter) { return c.processFd(parameter); }
    static bool sendLargePayload(C& c, const char* data, unsigned int length) {
        return c.sendLargePayload(2000, data, length, nullptr, 0);
    }
    static bool sendSync(C& c) { return c.nipcSendSyncRequest(2000, "", 0, nullptr, nullptr); }
    static bool handleAsyncRequest(C& c, const char* name) { return c.handleAsyncRequest(name, "", 0, 3, 0, nullptr); }
    static bool handleFunctionCallback(C& c, std::uint16_t id) { return c.handleFunctionCallback(id, "", 0, nullptr); }
};

}  // namespace nipcconnector
