#include "ConnectionState.h"

#include <cstdio>
#include <thread>

namespace thermostat {

namespace {

/// " KEY=VALUE" for each dimension of the metric's own; the first sixteen are the same for all metrics.
std::string describe(const std::vector<smarthome::TalvoraDimension>& dimensions) {
    constexpr std::size_t commonDimensions = 16;
    std::string text;
    for (std::size_t i = commonDimensions; i < dimensions.size(); ++i) {
        const auto& dimension = dimensions[i];
        const bool isInteger = dimension.valueType == smarthome::TalvoraDimensionType::Integer;
        text += " " + dimension.name + "=" + (isInteger ? std::to_string(dimension.intValue) : dimension.stringValue);
    }
    return text;
}

bool saysConnected(const std::vector<smarthome::TalvoraDimension>& dimensions) {
    for (const auto& dimension : dimensions)
        if (dimension.name == "ConnectionState") return dimension.stringValue == "Connected";
    return false;
}

}  // namespace

void ConnectionState::update(bool isConnected, std::string reportText) {
    const std::lock_guard<std::mutex> lock(mutex);
    lastConnected = isConnected;
    lastReport = std::move(reportText);
}

bool ConnectionState::connected() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return lastConnected;
}

std::string ConnectionState::report() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return lastReport;
}

void StdoutRecorder::record(const std::string& metricName, const std::vector<smarthome::TalvoraDimension>& dimensions) {
    const std::string text = metricName + describe(dimensions);
    if (metricName == "AggregateConnectionQuality") {
        state->update(saysConnected(dimensions), text);
    } else {
        std::printf("  metric %s\n", text.c_str());
    }
}

bool waitUntilConnected(nipcconnector::NIPCConnector& connector, const ConnectionState& state,
                        std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        connector.reportAggregateMetrics();
        if (state.connected()) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

}  // namespace thermostat
