#include "nipcconnector/NIPCConnector.h"

#include <utility>

#include "connector/ConnectorGate.h"
#include "connector/ConnectorGuards.h"
#include "connector/Log.h"
#include "connector/Registry.h"

namespace nipcconnector {

NIPCConnector::NIPCConnector(bool clientRole, const std::string& connectorName, const NIPCServiceConfig& config,
                             std::unique_ptr<ILogger> connectorLogger, std::unique_ptr<IMetricsRecorder> recorder)
    : smarthome::GenericConnector(connectorName, smarthome::ConnectorConstants::Nipc),
      isClient(clientRole),
      logger(std::move(connectorLogger)),
      metricsRecorder(std::move(recorder)),
      retryManager(this),
      guards(std::make_unique<ConnectorGuards>()) {
    NIPC_LOG(logger, debug, "NIPCConnector constructor for %s", connectorName.c_str());
    serviceConfig = config;
    NIPC_LOG(logger, debug, "NIPCConnector constructor for %s, server name: %s, uuid: %u", name.c_str(),
             serviceConfig.serverName.c_str(), static_cast<unsigned int>(serviceConfig.uuid));
    ConnectorGate::open(this);
}

NIPCConnector::~NIPCConnector() {
    NIPC_LOG(logger, debug, "NIPCConnector destructor");
    ConnectorGate::close(this);
    retryManager.stopRetry();
    ConnectorGate::retire(this);
    if (isClient) deinitClient();
    registry().erase(this);
}

bool NIPCConnector::initialize() {
    NIPC_LOG(logger, debug, "Initializing NIPCConnector for %s", name.c_str());
    return isClient ? initClient() : initServer();
}

}  // namespace nipcconnector
