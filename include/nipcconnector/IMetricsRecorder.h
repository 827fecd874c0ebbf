#pragma once

#include <string>
#include <vector>

#include "smarthome/Export.h"
#include "smarthome/TalvoraDimension.h"

namespace nipcconnector {

/// Takes the library's metrics; supplied by the application and owned by the connector.
///
/// Called concurrently from application threads, delivery threads and the retry thread, and sometimes
/// under locks of the connector: an implementation must be thread-safe, must not call back into the
/// connector, and must not call exit(). The order of the operations is a binary contract.
class SMARTHOME_EXPORT IMetricsRecorder {
public:
    virtual ~IMetricsRecorder();

    /// Records one event of count one. `dimensions` holds the thirteen predefined dimensions (ids 1 to
    /// 13), "MetricName", "ServiceName" and "Counter" (1), then those of the metric, in this order. Both
    /// arguments are valid only during the call.
    virtual void record(const std::string& metricName, const std::vector<smarthome::TalvoraDimension>& dimensions) = 0;
};

}  // namespace nipcconnector
