#include "ConnectorTest.h"

namespace nipctest {
namespace {

using Metrics = ConnectorTest;

/// The report: its metric and its line, which keep 32 and 64 bits of a count.
Lines report(bool connected, unsigned long long asyncFailures, unsigned long long syncFailures, long duration) {
    const auto narrow = [](unsigned long long count) { return std::to_string(static_cast<std::int32_t>(count)); };
    return {
        metric(std::string("AggregateConnectionQuality ConnectionState=\"") + (connected ? "C" : "Disc") +
               "onnected\" TotalDisconnectionCount=0 AsyncRequestWhileDisconnectedCount=0 AsyncRequestFailureCount=" +
               narrow(asyncFailures) + " SyncRequestFailureCount=" + narrow(syncFailures) +
               " CurrentConnectionDurationMs=" + std::to_string(duration)),
        info("Aggregate metrics - Disconnections: %llu, AsyncReqWhileDisc: %llu, AsyncReqFail: %llu, "
             "SyncReqFail: %llu, ConnDuration: %ldms",
             0ULL, 0ULL, asyncFailures, syncFailures, duration)};
}

TEST_F(Metrics, TheReportNarrowsItsDimensionsButNotItsLine) {
    const Subject client = make(Role::Client);
    Access::connectionStartTime(*client) = 1;
    client->reportAggregateMetrics();
    client.expectJournal(report(false, 0, 0, 0));
    up(client);
    Access::asyncRequestFailureCount(*client) = 4294967296;
    Access::syncRequestFailureCount(*client) = 4294967295;
    const std::uint64_t now = time.now();
    const struct {
        std::uint64_t start, age;
        long duration;
    } cases[] = {{now, 1'999'999, 1}, {0, 0, 0}, {~std::uint64_t{0}, 0, 0}, {1, 2147483648000001, -2147483648L}};
    for (const auto& c : cases) {
        Access::connectionStartTime(*client) = c.start;
        time.clock = c.start == 1 ? c.age : now + c.age;
        client->reportAggregateMetrics();
        client.expectJournal(report(true, 4294967296, 4294967295, c.duration));
    }
}

TEST_F(Metrics, NeitherLoggerNorRecorderIsNeeded) {
    for (const bool logs : {false, true}) {
        for (const bool records : {false, true}) {
            const auto journal = std::make_shared<Journal>("bare");
            NIPCConnector client(true, "bare", {"", 65535}, logs ? recordingLogger(journal) : nullptr,
                                 records ? recordingRecorder(journal) : nullptr);
            EXPECT_FALSE(client.initialize());
            EXPECT_EQ(client.makeAsyncRequest("", "name", "", 0, nullptr), RequestStatus::Failure);
            EXPECT_FALSE(Access::sendSync(client));
            EXPECT_FALSE(Access::sendLargePayload(client, nullptr, 20000));
            EXPECT_FALSE(Access::processFd(client, nullptr));
            journal->clear();
            client.reportAggregateMetrics();
            Lines lines = report(false, 1, 0, 0);
            if (!logs) lines.pop_back();
            if (!records) lines.erase(lines.begin());
            EXPECT_EQ(journal->lines(), lines);
        }
    }
}

}  // namespace
}  // namespace nipctest
