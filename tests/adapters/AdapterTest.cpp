// The adapters that depend on nothing, on the scripted platform.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <regex>
#include <stdexcept>
#include <thread>

#include "nipcconnector/adapters/ConnectionWatch.h"
#include "nipcconnector/adapters/RateLimitedLogger.h"
#include "nipcconnector/adapters/StderrLogger.h"
#include "nipcconnector/testing/FakePlatform.h"
#include "nipcconnector/testing/Journal.h"

namespace {

using namespace std::chrono_literals;
using namespace nipcconnector::testing;
using nipcconnector::ConnectionWatch;
using nipcconnector::NIPCConnector;
using nipcconnector::RateLimitedLogger;
using nipcconnector::StderrLogger;

void logAll(nipcconnector::ILogger& logger, const char* what) {
    logger.debug("%s %d", what, 1);
    logger.info("%s %d", what, 2);
    logger.warn("%s %d", what, 3);
    logger.error("%s %d", what, 4);
}

TEST(StderrLogger, WritesWholeLinesFromItsLevelOn) {
    const struct {
        StderrLogger::Level least;
        const char* pattern;
    } cases[] = {{StderrLogger::Level::Debug, "[-0-9T:.]{23}Z D me: line 1\n.* I me: line 2\n.*\n.*\n"},
                 {StderrLogger::Level::Warn, "[-0-9T:.]{23}Z W me: line 3\n[-0-9T:.]{23}Z E me: line 4\n"},
                 {StderrLogger::Level::Nothing, ""}};
    for (const auto& c : cases) {
        ::testing::internal::CaptureStderr();
        StderrLogger logger("me", c.least);
        logAll(logger, "line");
        const std::string written = ::testing::internal::GetCapturedStderr();
        EXPECT_TRUE(std::regex_match(written, std::regex(c.pattern))) << written;
    }
}

TEST(StderrLogger, CutsWhatIsTooLong) {
    ::testing::internal::CaptureStderr();
    StderrLogger(std::string(5000, 'n')).error("%s", std::string(5'000'000, 'x').c_str());
    const std::string line = ::testing::internal::GetCapturedStderr();
    EXPECT_LT(line.size(), 2304U);
    EXPECT_EQ(line.substr(line.size() - 5), "x...\n");
}

TEST(RateLimitedLogger, PassesOnTheFirstOfEachKindAndCountsTheRest) {
    const auto journal = std::make_shared<Journal>("inner");
    {
        RateLimitedLogger logger(recordingLogger(journal), 2, 200ms);
        for (int i = 0; i < 5; ++i) logger.error("lost %d", i);
        logger.info("another %s", "kind");
        const auto told = [&] { return journal->count("3 more lines like this were left out: lost %d") > 0; };
        while (!told()) logger.debug("later");  // Until the period is over.
        EXPECT_EQ(journal->count("lost 1") + journal->count("another kind"), 2U);
        EXPECT_EQ(journal->count("lost 2"), 0U);
        for (int i = 5; i < 8; ++i) logger.error("lost %d", i);
        EXPECT_EQ(journal->count("lost 6"), 1U);
    }
    EXPECT_EQ(journal->count("1 more lines like this were left out: lost %d"), 1U);
    for (const Line& line : journal->lines()) {
        const bool lost = line.text.find("lost") != std::string::npos;
        EXPECT_EQ(line.level, lost ? 'E' : line.text == "another kind" ? 'I' : 'D') << line.text;
    }
}

TEST(RateLimitedLogger, MoreKindsThanItTellsApartAreLimitedToo) {
    const auto journal = std::make_shared<Journal>("inner");
    std::vector<std::string> formats;
    formats.reserve(200);
    for (int i = 0; i < 200; ++i) formats.push_back("kind " + std::to_string(i));
    {
        RateLimitedLogger logger(recordingLogger(journal), 1, 1h);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
        for (const auto& format : formats) logger.warn(format.c_str());
#pragma GCC diagnostic pop
        EXPECT_EQ(journal->lines().size(), 64U);
    }
    EXPECT_EQ(journal->count("136 more lines like this were left out: of rare kinds"), 1U);
    logAll(*std::make_unique<RateLimitedLogger>(nullptr), "into nothing");
}

TEST(ConnectionWatch, KnowsAConnectionAndItsLoss) {
    FakePlatform& platform = FakePlatform::instance();
    platform.reset();
    const std::string name = uniqueName("watched");
    const auto journal = std::make_shared<Journal>(name);
    std::vector<bool> changes;
    const ConnectionWatch watch([&changes](bool connected) { changes.push_back(connected); });
    const auto client =
        NIPCConnector::getInstance(true, name, {name, 7}, nullptr, watch.recorder(recordingRecorder(journal)));
    EXPECT_FALSE(watch.waitUntilConnected(*client, 5ms));
    ASSERT_TRUE(client->initialize());
    EXPECT_TRUE(watch.waitUntilConnected(*client, 10s));

    platform.failNext(Operation::Connect, -ECONNREFUSED, 3);
    platform.endService();
    EXPECT_FALSE(watch.connected());
    EXPECT_TRUE(watch.waitUntilConnected(*client, std::chrono::milliseconds::max()));
    EXPECT_FALSE(watch.waitUntilLost(*client, 5ms));
    EXPECT_EQ(changes, (std::vector<bool>{true, false, true}));

    // Of all that it asked for, nothing but what others asked for went on.
    client->reportAggregateMetrics();
    std::vector<std::string> metrics;
    for (const Line& line : journal->lines()) metrics.push_back(line.text.substr(0, line.text.find(' ')));
    EXPECT_EQ(metrics, (std::vector<std::string>{"ServerDisconnection", "AggregateConnectionQuality"}));
    EXPECT_FALSE(watch.waitUntilLost(*client, 0ms));
}

TEST(ConnectionWatch, TellsOneChangeAfterTheOther) {
    std::unique_ptr<nipcconnector::IMetricsRecorder> recorder;
    std::vector<bool> changes;
    const ConnectionWatch watch([&](bool connected) {
        if (connected) std::thread([&] { recorder->record("ServerDisconnection", {}); }).join();
        changes.push_back(connected);
        if (!connected) throw std::runtime_error("swallowed by the connector");
    });
    recorder = watch.recorder();
    const auto report = [&](const char* state) {
        recorder->record("AggregateConnectionQuality",
                         {{"ConnectionState", state, 0, 0, 0, smarthome::TalvoraDimensionType::String, false}});
    };
    for (int i = 0; i < 2; ++i) EXPECT_THROW(report("Connected"), std::runtime_error);
    EXPECT_EQ(changes, (std::vector<bool>{true, false, true, false}));
    EXPECT_FALSE(watch.connected());
}

}  // namespace
