// How a server offers its service: at once, or by and by on the retry thread.
#include "connector/ConnectorGuards.h"
#include "connector/Limits.h"
#include "connector/Log.h"
#include "nex_nipc.h"
#include "nipcconnector/NIPCConnector.h"

namespace nipcconnector {

bool NIPCConnector::initServer() {
    {
        const std::lock_guard<std::mutex> lock(connectionMutex);
        if (isConnected) {
            NIPC_LOG(logger, warn, "IpcServer already initialized");
            return true;
        }
    }
    NIPC_LOG(logger, debug, "Initializing IPC server..");
    if (!hasValidConfig()) {
        NIPC_LOG(logger, error, "Service config is invalid for server NIPCConnector");
        return false;
    }
    ServerStartRecord record{};
    record.uuid = serviceConfig.uuid;
    record.listener = &NIPCConnector::serverListener;
    record.messageSize = MAX_PAYLOAD_SIZE;
    record.option16 = 10;
    record.option20 = 1;
    record.option32 = 1;
    record.userContext = this;

    const nex_status_t status = startService(record);
    if (status == 0) {
        NIPC_LOG(logger, debug, "Initializing IPC server..done");
        return true;
    }
    NIPC_LOG(logger, warn, "Initial NIPC server start failed (status: %d), starting async retry with 5-minute timeout",
             static_cast<int>(status));
    recordMetric("ServerInitFailure", {});
    return retryManager.startRetry([this, record] { return startServiceAgain(record); }, "NIPC_SERVER_INIT");
}

std::int32_t NIPCConnector::startService(const ServerStartRecord& record) {
    const std::lock_guard<std::mutex> oneAtATime(guards->startGate);
    {
        const std::lock_guard<std::mutex> lock(connectionMutex);
        if (isConnected) return 0;
    }
    guards->serviceHandle = -1;
    guards->starting = true;
    const nex_status_t status = nexNipc_start(&guards->serviceHandle, &record);
    const std::lock_guard<std::mutex> lock(connectionMutex);
    guards->starting = false;  // Not before the listener can find the handle in its place.
    if (status != 0) return status;
    nipcHandle = guards->serviceHandle;
    isConnected = true;
    retryManager.forgetRefusedStart();
    return 0;
}

std::int32_t NIPCConnector::startServiceAgain(const ServerStartRecord& record) {
    {
        const std::lock_guard<std::mutex> lock(connectionMutex);
        if (isConnected) return 0;  // A later initialize() was faster.
    }
    const nex_status_t status = startService(record);
    if (status != 0) return status;
    NIPC_LOG(logger, info, "NIPC server initialization succeeded on retry");
    recordMetric("ServerInitSucceededOnRetry", {});
    return 0;
}

void NIPCConnector::adoptServiceHandle() {
    if (!guards->starting) return;
    const std::lock_guard<std::mutex> lock(connectionMutex);
    nipcHandle = guards->serviceHandle;
}

std::int32_t NIPCConnector::currentHandle() {
    const std::lock_guard<std::mutex> lock(connectionMutex);
    return nipcHandle;
}

}  // namespace nipcconnector
