// A client's connection: how it comes up, is lost, and comes back.
//
// `isConnected`, `isConnecting` and `nipcHandle` change under connectionMutex, and the two flags are never both
// set. Connected is who has the flag and a handle: an attempt begins by forgetting the old handle, and the flag
// alone says that the listener heard of the success before the attempt brought the handle home. The worker that
// connects and the listener that hears of the outcome race each other: what the listener has heard of a loss since the
// attempt began outranks the worker's success.
#include <cerrno>

#include "connector/ConnectorGuards.h"
#include "connector/Limits.h"
#include "connector/Log.h"
#include "connector/TimeSource.h"
#include "metrics/Dimensions.h"
#include "nex_nipc.h"
#include "nipcconnector/NIPCConnector.h"

namespace nipcconnector {
namespace {

// Guarded, with its arguments: want of memory for a metric must not keep a connection from coming back.
constexpr const char* connectionMetric = "Recording the connection's metric";

}  // namespace

bool NIPCConnector::hasValidConfig() const { return !serviceConfig.serverName.empty() || serviceConfig.uuid != 65535; }

bool NIPCConnector::initClient() {
    {
        const std::lock_guard<std::mutex> lock(connectionMutex);
        if (isConnected) {
            NIPC_LOG(logger, debug, "Already connected to VLRS service");
            return true;
        }
        isConnecting = true;
    }
    NIPC_LOG(logger, debug, "Starting non-blocking connection to VLRS service");
    if (!hasValidConfig()) {
        NIPC_LOG(logger, error, "Service config is invalid for client NIPCConnector");
        return false;
    }
    bool started = false;
    callGuarded(logger.get(), "The start of connecting",
                [&] { started = retryManager.startRetry([this] { return connectToService(); }, "NIPC_CLIENT_INIT"); });
    if (started) return true;

    const std::lock_guard<std::mutex> lock(connectionMutex);
    isConnecting = false;
    return false;
}

std::int32_t NIPCConnector::connectToService() {
    {
        const std::lock_guard<std::mutex> lock(connectionMutex);
        if (isConnected && nipcHandle != -1) return 0;
        nipcHandle = -1;  // One from before is dead, also when it could not be disconnected.
        if (guards->attempts++ == 0) guards->lost = false;
    }
    ClientConnectRecord record{};
    record.uuid = serviceConfig.uuid;
    record.listener = &NIPCConnector::clientListener;
    record.messageSize = MAX_PAYLOAD_SIZE;
    record.option12 = 1;
    record.userContext = this;
    std::int32_t handle = -1;
    const nex_status_t status = nexNipc_connect(&handle, &record);
    if (status == 0) NIPC_LOG(logger, info, "nexNipc_connect succeeded");

    bool lost = false;
    {
        const std::lock_guard<std::mutex> lock(connectionMutex);
        --guards->attempts;
        guards->attemptEnded.notify_all();
        lost = guards->lost;
        const bool connectedByOther = isConnected && nipcHandle != -1;
        if (status == 0 && !lost && !connectedByOther) {
            nipcHandle = handle;
            markConnected();
            retryManager.forgetRefusedStart();
            return 0;
        }
        if (isConnected && !connectedByOther) {  // The listener heard of a success that has come to nothing.
            isConnected = false;
            isConnecting = true;
        }
    }
    if (status != 0) return status;
    nexNipc_disconnect(&handle);
    return lost ? -ENOTCONN : 0;
}

void NIPCConnector::markConnected() {
    isConnecting = false;
    NIPC_LOG(logger, info, "Successfully connected to server");
    isConnected = true;
    const std::lock_guard<std::mutex> lock(statsMutex);
    connectionStartTime = timeSource().now();
}

bool NIPCConnector::deinitClient() {
    NIPC_LOG(logger, debug, "deinitClient");
    std::int32_t handle = -1;
    bool disconnects = false;
    {
        const std::lock_guard<std::mutex> lock(connectionMutex);
        handle = nipcHandle;
        // A handle that an attempt has yet to bring home is disconnected by that attempt.
        disconnects = isConnected && (handle != -1 || guards->attempts == 0);
        isConnected = false;
        nipcHandle = -1;
    }
    if (disconnects) {
        std::int32_t disconnected = handle;
        const nex_status_t status = nexNipc_disconnect(&disconnected);
        if (status != 0) {
            NIPC_LOG(logger, error, "Failed to disconnect, status: %d", static_cast<int>(status));
            const std::lock_guard<std::mutex> lock(connectionMutex);
            if (!isConnected && nipcHandle == -1 && guards->attempts == 0) nipcHandle = handle;
            return false;
        }
    }
    NIPC_LOG(logger, debug, "Disconnected from VLRS service");
    return true;
}

void NIPCConnector::handleConnectionResult(bool success) {
    {
        const std::lock_guard<std::mutex> lock(connectionMutex);
        if (success) {
            markConnected();
            return;
        }
        isConnecting = false;
        NIPC_LOG(logger, error, "Failed to connect to server");
        isConnected = false;
        guards->lost = true;
    }
    const char* connectionType = "InitialConnection";
    std::uint64_t count = 0;
    {
        const std::lock_guard<std::mutex> lock(statsMutex);
        if (lastDisconnectionTime > 0) connectionType = "Reconnection";
        count = disconnectionCount;
    }
    callGuarded(logger.get(), connectionMetric, [&] {
        recordMetric("ConnectionFailure", {stringDimension("ConnectionType", connectionType),
                                           integerDimension("DisconnectionCount", count)});
    });
    if (!initClient()) NIPC_LOG(logger, error, "Failed to initiate reconnection");
}

void NIPCConnector::handleServerDisconnection() {
    {
        const std::lock_guard<std::mutex> lock(connectionMutex);
        guards->lost = true;
        if (isConnecting) return;
    }
    NIPC_LOG(logger, debug, "Handling server disconnection");
    std::uint64_t count = 0;
    std::uint64_t durationMs = 0;
    {
        const std::lock_guard<std::mutex> lock(statsMutex);
        count = ++disconnectionCount;
        lastDisconnectionTime = timeSource().now();
        if (connectionStartTime > 0) {
            durationMs = (lastDisconnectionTime - connectionStartTime) / NANOSECONDS_PER_MILLISECOND;
        }
    }
    callGuarded(logger.get(), connectionMetric, [&] {
        recordMetric("ServerDisconnection", {integerDimension("DisconnectionCount", count),
                                             integerDimension("ConnectionDurationMs", durationMs)});
    });
    deinitClient();
    if (!initClient()) NIPC_LOG(logger, error, "Failed to initiate reconnection");
}

}  // namespace nipcconnector
