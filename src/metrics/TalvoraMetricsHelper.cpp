#include "smarthome/TalvoraMetricsHelper.h"

#include <unordered_map>

#include "MetricTables.h"

namespace smarthome {
namespace {

using namespace metric_tables;
using MetricTable = std::unordered_map<std::string, std::string>;

template <std::size_t size>
const MetricTable* newTable(const MetricRow (&rows)[size]) {
    auto* table = new MetricTable;
    for (const MetricRow& row : rows) table->emplace(row.key, row.id);
    return table;
}

// A table is built by whoever asks first and never destroyed: the constructors and destructors of another
// library's globals may run before ours and after.
const MetricTable& metricGroupIds() {
    static const MetricTable* const table = newTable(metricGroupRows);
    return *table;
}

const MetricTable& metricSchemaIds() {
    static const MetricTable* const table = newTable(metricSchemaRows);
    return *table;
}

// Nobody else asked while the library was loaded: build them now, so that no lookup has to.
[[maybe_unused]] const bool builtAtLoad = (metricGroupIds(), metricSchemaIds(), true);

std::string find(const MetricTable& table, const std::string& key, const char* otherwise) {
    const auto row = table.find(key);
    return row != table.end() ? row->second : otherwise;
}

}  // namespace

std::pair<std::string, std::string> TalvoraMetricsHelper::getGroupAndSchemaId(const std::string& groupKey,
                                                                              const std::string& schemaKey) {
    return {find(metricGroupIds(), groupKey, defaultMetricGroupId),
            find(metricSchemaIds(), schemaKey, defaultMetricSchemaId)};
}

}  // namespace smarthome
