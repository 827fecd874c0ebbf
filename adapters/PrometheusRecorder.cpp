#include "nipcconnector/adapters/PrometheusRecorder.h"

#include <prometheus/counter.h>
#include <prometheus/gauge.h>
#include <prometheus/registry.h>

namespace nipcconnector {
namespace {

using smarthome::TalvoraDimension;
using smarthome::TalvoraDimensionType;

bool isUpper(char c) { return c >= 'A' && c <= 'Z'; }

// "AsyncRequestFailure" is "async_request_failure".
std::string snakeCase(const std::string& camelCase) {
    std::string snake;
    for (const char c : camelCase) {
        if (isUpper(c) && !snake.empty()) snake += '_';
        snake += isUpper(c) ? static_cast<char>(c - 'A' + 'a') : c;
    }
    return snake;
}

bool isCommon(const TalvoraDimension& dimension) {
    return dimension.valueType == TalvoraDimensionType::Predefined || dimension.name == "MetricName" ||
           dimension.name == "ServiceName" || dimension.name == "Counter";
}

std::string serviceOf(const std::vector<TalvoraDimension>& dimensions) {
    for (const auto& dimension : dimensions) {
        if (dimension.name == "ServiceName") return dimension.stringValue;
    }
    return {};
}

}  // namespace

PrometheusRecorder::PrometheusRecorder(std::shared_ptr<prometheus::Registry> target) : registry(std::move(target)) {}

PrometheusRecorder::~PrometheusRecorder() = default;

void PrometheusRecorder::record(const std::string& metricName, const std::vector<TalvoraDimension>& dimensions) {
    const std::string service = serviceOf(dimensions);
    if (metricName == "AggregateConnectionQuality") return recordReport(service, dimensions);

    Labels labels{{"service", service}};
    for (const auto& dimension : dimensions) {
        if (isCommon(dimension) || dimension.valueType != TalvoraDimensionType::String) continue;
        const std::string label = snakeCase(dimension.name);
        labels[label] = bounded(label, dimension.stringValue);
    }
    // The registry gives the counter that is there for a name and labels that it has.
    prometheus::BuildCounter()
        .Name("nipc_" + snakeCase(metricName) + "_total")
        .Help("Times that the connector recorded " + metricName)
        .Register(*registry)
        .Add(labels)
        .Increment();
}

void PrometheusRecorder::recordReport(const std::string& service, const std::vector<TalvoraDimension>& dimensions) {
    const Labels labels{{"service", service}};
    for (const auto& dimension : dimensions) {
        if (isCommon(dimension)) continue;
        if (dimension.name == "ConnectionState") {
            setGauge("nipc_connected", labels, dimension.stringValue == "Connected" ? 1 : 0);
        } else if (dimension.valueType == TalvoraDimensionType::Integer) {
            setGauge("nipc_" + snakeCase(dimension.name), labels, dimension.intValue);
        }
    }
}

void PrometheusRecorder::setGauge(const std::string& name, const Labels& labels, double value) {
    prometheus::BuildGauge()
        .Name(name)
        .Help("From the connector's last aggregate report")
        .Register(*registry)
        .Add(labels)
        .Set(value);
}

std::string PrometheusRecorder::bounded(const std::string& label, const std::string& value) {
    const std::lock_guard<std::mutex> lock(mutex);
    auto& values = seen[label];
    if (values.count(value) > 0) return value;
    if (values.size() >= mostValues) return "other";
    return *values.insert(value).first;
}

}  // namespace nipcconnector
