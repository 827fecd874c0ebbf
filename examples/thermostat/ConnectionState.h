#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "nipcconnector/IMetricsRecorder.h"
#include "nipcconnector/NIPCConnector.h"

namespace thermostat {

/// What the connector's last aggregate report said. Thread-safe. Shared by the recorder, which belongs to
/// the connector and may live longer than main(), and by the application.
class ConnectionState {
public:
    void update(bool isConnected, std::string reportText);
    bool connected() const;
    std::string report() const;

private:
    mutable std::mutex mutex;
    bool lastConnected = false;
    std::string lastReport;
};

/// Prints the connector's metrics, but keeps the aggregate reports in `state` instead.
class StdoutRecorder : public nipcconnector::IMetricsRecorder {
public:
    explicit StdoutRecorder(std::shared_ptr<ConnectionState> sharedState) : state(std::move(sharedState)) {}

    void record(const std::string& metricName, const std::vector<smarthome::TalvoraDimension>& dimensions) override;

private:
    const std::shared_ptr<ConnectionState> state;
};

/// Waits until a client is connected, or a server's service is offered; false when `limit` is over first.
/// initialize() does not tell: it returns before the outcome is known, and requests made too early fail.
bool waitUntilConnected(nipcconnector::NIPCConnector& connector, const ConnectionState& state,
                        std::chrono::milliseconds limit);

}  // namespace thermostat
