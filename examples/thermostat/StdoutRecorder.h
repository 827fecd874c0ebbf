#pragma once

#include <cstdio>

#include "nipcconnector/IMetricsRecorder.h"

namespace thermostat {

/// Prints the connector's metrics, " KEY=VALUE" for each dimension of the metric's own.
class StdoutRecorder : public nipcconnector::IMetricsRecorder {
public:
    void record(const std::string& metricName, const std::vector<smarthome::TalvoraDimension>& dimensions) override {
        constexpr std::size_t commonDimensions = 16;  // The same for all metrics.
        std::string text = metricName;
        for (std::size_t i = commonDimensions; i < dimensions.size(); ++i) {
            const auto& dimension = dimensions[i];
            const bool isInteger = dimension.valueType == smarthome::TalvoraDimensionType::Integer;
            text +=
                " " + dimension.name + "=" + (isInteger ? std::to_string(dimension.intValue) : dimension.stringValue);
        }
        std::printf("  metric %s\n", text.c_str());
    }
};

}  // namespace thermostat
