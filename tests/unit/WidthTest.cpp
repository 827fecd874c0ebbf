// What depends on the width of a pointer.
#include "ConnectorTest.h"
#include "connector/Registry.h"

namespace nipctest {
namespace {

using Width = ConnectorTest;

constexpr std::uint64_t wideId = 0x100000005U;
constexpr bool narrow = sizeof(void*) == 4;

TEST_F(Width, ACallbackIdTravelsAsWideAsAPointerAndInAShareInItsLowHalf) {
    const Subject client = connectedClient();
    Access::nextCallbackId(*nipcconnector::getCallbackManager(client.connector.get())) = wideId;
    int answers = 0;
    const auto count = [&answers](bool, const char*, unsigned int) { ++answers; };
    ASSERT_EQ(client->makeAsyncRequest("", "name", "hi", 2, count), RequestStatus::Success);
    const std::uintptr_t context = platform.calls(Operation::RpcAsync).back().requestContext;
    EXPECT_EQ(context, static_cast<std::uintptr_t>(wideId));
    platform.deliverCallback(ASYNC_RESPONSE_SUCCESS_ID, "", context);
    EXPECT_EQ(answers, narrow ? 0 : 1) << "on a narrow target the answer names another callback";
    EXPECT_EQ(client.journal->count("Callback not found with id 5, functionId 1002"), narrow ? 1U : 0U);

    const std::string payload(16384, 'p');
    ASSERT_EQ(client->makeAsyncRequest("", "name", payload.data(), 16384, {}), RequestStatus::Success);
    EXPECT_EQ(platform.calls(Operation::ClientShareFd).back().requestContext, 6U);
}

}  // namespace
}  // namespace nipctest
