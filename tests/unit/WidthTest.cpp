// What depends on the width of a pointer, and what must not.
#include "ConnectorTest.h"
#include "connector/Registry.h"

namespace nipctest {
namespace {

using Width = ConnectorTest;

constexpr std::uint64_t kWideId = 0x100000005U;
constexpr bool kNarrow = sizeof(void*) == 4;

TEST_F(Width, ACallbackIdTravelsAsWideAsAPointer) {
    const Subject client = connectedClient();
    Access::nextCallbackId(*nipcconnector::getCallbackManager(client.connector.get())) = kWideId;
    int answers = 0;
    const auto count = [&answers](bool, const char*, unsigned int) { ++answers; };
    ASSERT_EQ(client->makeAsyncRequest("", "name", "hi", 2, count), RequestStatus::Success);

    const std::uintptr_t context = platform.calls(Operation::RpcAsync).back().requestContext;
    EXPECT_EQ(context, static_cast<std::uintptr_t>(kWideId));
    client.journal->clear();
    platform.deliverCallback(ASYNC_RESPONSE_SUCCESS_ID, "", context);
    EXPECT_EQ(answers, kNarrow ? 0 : 1) << "on a narrow target the answer names another callback";
    EXPECT_EQ(client.journal->count("Callback not found with id 5, functionId 1002"), kNarrow ? 1U : 0U);
}

TEST_F(Width, ACallbackIdOfALargeRequestTravelsInItsLowHalf) {
    const Subject client = connectedClient();
    Access::nextCallbackId(*nipcconnector::getCallbackManager(client.connector.get())) = kWideId;
    const std::string payload(16384, 'p');
    ASSERT_EQ(client->makeAsyncRequest("", "name", payload.data(), 16384, {}), RequestStatus::Success);
    EXPECT_EQ(platform.calls(Operation::ClientShareFd).back().requestContext, 5U);
}

TEST_F(Width, ADurationIsKeptIn32BitsEverywhere) {
    const Subject client = connectedClient();
    Access::connectionStartTime(*client) = 1;
    time.clock = 2147483648ULL * 1'000'000 + 1;
    client->reportAggregateMetrics();
    EXPECT_NE(client.journal->metrics().back().find("CurrentConnectionDurationMs=-2147483648"), std::string::npos);
    EXPECT_NE(client.journal->lines().back().text.find("ConnDuration: -2147483648ms"), std::string::npos);
}

}  // namespace
}  // namespace nipctest
