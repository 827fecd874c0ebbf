#pragma once

#include <string>
#include <utility>

#include "smarthome/Export.h"

namespace smarthome {

/// Finds the ids under which the platform's metrics service files a metric. The tables behind it are data of a
/// deployment, compiled into the library.
class SMARTHOME_EXPORT TalvoraMetricsHelper {
public:
    /// Returns the metric group id of the reporting component `groupKey` and the schema id of the metric set
    /// `schemaKey`. Names are taken exactly, letter case included. Each that is not listed, the empty one too, gives
    /// the deployment's default on its own. May be called from any thread at any time, also while other libraries
    /// are being loaded or the process ends.
    ///
    /// For example, `getGroupAndSchemaId("HubCoordinator", "NoSuchSet").first` is the id of the first listed
    /// component, which is also the default group, and `.second` is the default schema id.
    static std::pair<std::string, std::string> getGroupAndSchemaId(const std::string& groupKey,
                                                                   const std::string& schemaKey);
};

}  // namespace smarthome
