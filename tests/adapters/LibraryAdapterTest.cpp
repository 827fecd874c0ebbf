// The adapters to spdlog and prometheus-cpp.
#include <gtest/gtest.h>
#include <prometheus/registry.h>
#include <prometheus/text_serializer.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/ostream_sink.h>

#include <algorithm>
#include <sstream>

#include "nipcconnector/adapters/PrometheusEndpoint.h"
#include "nipcconnector/adapters/PrometheusRecorder.h"
#include "nipcconnector/adapters/SpdlogLogger.h"

namespace {

using smarthome::TalvoraDimension;
using smarthome::TalvoraDimensionType;

TEST(SpdlogLogger, KeepsLevelsAndTakesTextsAsTheyAre) {
    std::ostringstream out;
    const auto target = std::make_shared<spdlog::logger>("log", std::make_shared<spdlog::sinks::ostream_sink_mt>(out));
    target->set_pattern("%l %v");
    target->set_level(spdlog::level::debug);
    nipcconnector::SpdlogLogger logger(target);
    logger.verbose("%s", "not taken");
    logger.debug("{} %d%%", 1);
    logger.info("%s", "{0} {");
    logger.warn("two");
    logger.error("%d", 3);
    EXPECT_EQ(out.str(), "debug {} 1%\ninfo {0} {\nwarning two\nerror 3\n");
    nipcconnector::SpdlogLogger(nullptr).error("into %s", "nothing");
}

std::string scrape(const prometheus::Registry& registry) {
    return prometheus::TextSerializer().Serialize(registry.Collect());
}

std::vector<TalvoraDimension> failure(const std::string& request, int size) {
    return {{"MetricName", "AsyncRequestFailure", 0, 0, 0, TalvoraDimensionType::String, false},
            {"ServiceName", "heater", 0, 0, 0, TalvoraDimensionType::String, false},
            {"Counter", "", 0, 1, 0, TalvoraDimensionType::Integer, false},
            {"RequestName", request, 0, 0, 0, TalvoraDimensionType::String, false},
            {"PayloadSize", "", 0, size, 0, TalvoraDimensionType::Integer, false}};
}

TEST(PrometheusRecorder, BoundsItsLabels) {
    const auto registry = std::make_shared<prometheus::Registry>();
    nipcconnector::PrometheusRecorder recorder(registry);
    for (int i = 0; i < 300; ++i) recorder.record("AsyncRequestFailure", failure("request " + std::to_string(i), i));
    recorder.record("AsyncRequestFailure", failure("request 7", 7));
    const std::string text = scrape(*registry);
    const std::string family = "nipc_async_request_failure_total{request_name=";
    EXPECT_NE(text.find(family + "\"request 7\",service=\"heater\"} 2\n"), std::string::npos) << text;
    EXPECT_NE(text.find(family + "\"other\",service=\"heater\"} 200\n"), std::string::npos) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 101 + 2);
}

TEST(PrometheusEndpoint, SaysWhenTheAddressIsTaken) {
    const auto first = nipcconnector::PrometheusEndpoint::serve("127.0.0.1:0");
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(nipcconnector::PrometheusEndpoint::serve("127.0.0.1:" + std::to_string(first->port())), nullptr);
}

}  // namespace
