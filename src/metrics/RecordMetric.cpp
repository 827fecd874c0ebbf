#include "connector/Log.h"
#include "metrics/Dimensions.h"
#include "nipcconnector/NIPCConnector.h"

namespace nipcconnector {

void NIPCConnector::recordMetric(const std::string& metricName,
                                 const std::vector<smarthome::TalvoraDimension>& dimensions) {
    if (!metricsRecorder) return;
    constexpr std::int32_t predefinedDimensions = 13;
    std::vector<smarthome::TalvoraDimension> all;
    all.reserve(predefinedDimensions + 3 + dimensions.size());
    for (std::int32_t id = 1; id <= predefinedDimensions; ++id) {
        smarthome::TalvoraDimension& dimension = all.emplace_back();
        dimension.valueType = smarthome::TalvoraDimensionType::Predefined;
        dimension.predefinedId = id;
    }
    all.push_back(stringDimension("MetricName", metricName));
    all.push_back(stringDimension("ServiceName", name));
    all.push_back(integerDimension("Counter", 1));
    all.insert(all.end(), dimensions.begin(), dimensions.end());
    callGuarded(logger.get(), "Metrics recorder", [&] { metricsRecorder->record(metricName, all); });
}

}  // namespace nipcconnector
