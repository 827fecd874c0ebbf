#pragma once

#include <string>

#include "smarthome/ConnectorTypes.h"
#include "smarthome/Export.h"
#include "smarthome/IAsyncReqConnector.h"
#include "smarthome/IPubSubConnector.h"
#include "smarthome/ISyncReqConnector.h"

namespace smarthome {

/// What an application holds: one connector that publishes, subscribes and makes or answers requests,
/// whatever carries them. The three interfaces are virtual bases, so a cast to any of them reaches the
/// same object. nipcconnector::NIPCConnector is the implementation of this library.
class SMARTHOME_EXPORT GenericConnector : public virtual IPubSubConnector,
                                          public virtual IAsyncReqConnector,
                                          public virtual ISyncReqConnector {
public:
    /// Copies both arguments. `name` is the one shown in log lines.
    GenericConnector(const std::string& name, const ConnectorConstants::ConnectorType& type);
    ~GenericConnector() override;

    GenericConnector(const GenericConnector&) = delete;
    GenericConnector& operator=(const GenericConnector&) = delete;

    /// Brings the connector up. The default has nothing to do and returns true.
    virtual bool initialize();

protected:
    std::string name;                        ///< As given to the constructor.
    ConnectorConstants::ConnectorType type;  ///< As given to the constructor.
};

}  // namespace smarthome
