#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "nipcconnector/IMetricsRecorder.h"

namespace prometheus {
class Registry;
}

namespace nipcconnector {

/// Keeps a connector's metrics in a registry of prometheus-cpp.
///
/// Each metric is a counter: "AsyncRequestFailure" is nipc_async_request_failure_total. Its labels are `service`
/// (the connector's name) and the metric's own dimensions that are texts: "FailureReason" is `failure_reason`.
/// The numbers of the aggregate report are gauges instead: `nipc_connected` (1 or 0), and
/// "TotalDisconnectionCount" is nipc_total_disconnection_count.
///
/// Labels are bounded: of each, the first 100 values of a recorder are told apart; further ones count as "other".
class PrometheusRecorder : public IMetricsRecorder {
public:
    /// A registry may have any number of recorders; those of one service add up.
    explicit PrometheusRecorder(std::shared_ptr<prometheus::Registry> registry);
    ~PrometheusRecorder() override;

    void record(const std::string& metricName, const std::vector<smarthome::TalvoraDimension>& dimensions) override;

private:
    using Labels = std::map<std::string, std::string>;
    static constexpr std::size_t mostValues = 100;

    void recordReport(const std::string& service, const std::vector<smarthome::TalvoraDimension>& dimensions);
    void setGauge(const std::string& name, const Labels& labels, double value);
    std::string bounded(const std::string& label, const std::string& value);

    const std::shared_ptr<prometheus::Registry> registry;
    std::mutex mutex;
    std::map<std::string, std::set<std::string>> seen;
};

}  // namespace nipcconnector
