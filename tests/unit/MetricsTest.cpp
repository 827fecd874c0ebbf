#include "ConnectorTest.h"

namespace nipctest {
namespace {

using Metrics = ConnectorTest;

Line report(unsigned long long asyncFailures, unsigned long long syncFailures, long duration) {
    return info(
        "Aggregate metrics - Disconnections: %llu, AsyncReqWhileDisc: %llu, AsyncReqFail: %llu, SyncReqFail: %llu, "
        "ConnDuration: %ldms",
        0ULL, 0ULL, asyncFailures, syncFailures, duration);
}

TEST_F(Metrics, TheReportNarrowsItsDimensionsButNotItsLine) {
    const Subject client = make(Role::Client);
    Access::connectionStartTime(*client) = 1;
    client->reportAggregateMetrics();
    client.expectJournal({report(0, 0, 0)},
                         {"AggregateConnectionQuality ConnectionState=\"Disconnected\" TotalDisconnectionCount=0 "
                          "AsyncRequestWhileDisconnectedCount=0 AsyncRequestFailureCount=0 SyncRequestFailureCount=0 "
                          "CurrentConnectionDurationMs=0"});

    up(client);
    Access::asyncRequestFailureCount(*client) = 4294967296;
    Access::syncRequestFailureCount(*client) = 4294967295;
    time.clock += 1'999'999;
    client->reportAggregateMetrics();
    client.expectJournal({report(4294967296, 4294967295, 1)},
                         {"AggregateConnectionQuality ConnectionState=\"Connected\" TotalDisconnectionCount=0 "
                          "AsyncRequestWhileDisconnectedCount=0 AsyncRequestFailureCount=0 SyncRequestFailureCount=-1 "
                          "CurrentConnectionDurationMs=1"});

    for (const std::uint64_t start : {std::uint64_t{0}, ~std::uint64_t{0}}) {
        Access::connectionStartTime(*client) = start;
        client->reportAggregateMetrics();
        EXPECT_NE(client.journal->metrics().back().find("CurrentConnectionDurationMs=0"), std::string::npos);
    }
}

TEST_F(Metrics, DimensionsOfTheCallerFollowTheCommonOnes) {
    const Subject client = make(Role::Client);
    smarthome::TalvoraDimension own;
    own.name = "Counter";
    own.valueType = smarthome::TalvoraDimensionType::Integer;
    own.intValue = 5;
    Access::recordMetric(*client, "", {own});
    client.expectJournal({}, {" Counter=5"});
}

TEST_F(Metrics, NeitherLoggerNorRecorderIsNeeded) {
    NIPCConnector client(true, "bare", {"", 65535}, nullptr, nullptr);
    EXPECT_FALSE(client.initialize());
    EXPECT_EQ(client.makeAsyncRequest("", "name", "", 0, nullptr), RequestStatus::Failure);
    EXPECT_FALSE(Access::sendSync(client, "", 0));
    EXPECT_FALSE(Access::sendLargePayload(client, nullptr, 20000));
    EXPECT_FALSE(Access::processFd(client, nullptr));
    client.reportAggregateMetrics();
}

}  // namespace
}  // namespace nipctest
