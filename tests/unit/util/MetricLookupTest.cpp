#include <gtest/gtest.h>

#include <cctype>
#include <string>

#include "EarlyLookup.h"
#include "MetricTables.h"
#include "smarthome/TalvoraMetricsHelper.h"

using namespace smarthome::metric_tables;
using Ids = std::pair<std::string, std::string>;

namespace {

Ids lookUp(const std::string& group, const std::string& schema) {
    return smarthome::TalvoraMetricsHelper::getGroupAndSchemaId(group, schema);
}

std::string otherCase(std::string key) {
    for (char& c : key) c = static_cast<char>(std::islower(c) != 0 ? std::toupper(c) : std::tolower(c));
    return key;
}

}  // namespace

TEST(MetricLookup, FindsEachListedKeyOnItsOwnAndExactly) {
    const Ids defaults{defaultMetricGroupId, defaultMetricSchemaId};
    for (const MetricRow& row : metricGroupRows) {
        EXPECT_EQ(lookUp(row.key, "not listed"), Ids(row.id, defaults.second)) << row.key;
        EXPECT_EQ(lookUp(otherCase(row.key), ""), defaults) << row.key;
    }
    for (const MetricRow& row : metricSchemaRows) {
        EXPECT_EQ(lookUp("not listed", row.key), Ids(defaults.first, row.id)) << row.key;
        EXPECT_EQ(lookUp("", otherCase(row.key)), defaults) << row.key;
    }
    EXPECT_EQ(lookUp(metricGroupRows[0].key, "").first, defaults.first);
}

// The libraries of a program are initialized before the program, which has the lookup linked into itself here, and
// destroyed after it.
TEST(MetricLookup, ServesGlobalsThatAreConstructedBeforeAndDestroyedAfterIt) {
    EXPECT_EQ(earlyLookup(), Ids(std::rbegin(metricGroupRows)->id, std::rbegin(metricSchemaRows)->id));
}
