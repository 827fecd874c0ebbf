#include <map>

#include "ConnectorTest.h"
#include "connector/CallbackManager.h"

namespace nipctest {
namespace {

// Both ends of a connection compute these, in different builds.
static_assert(computeFunctionId("") == 1004);
static_assert(computeFunctionId("a") == 7420);
static_assert(computeFunctionId("ab") == 58397);
static_assert(computeFunctionId("abc") == 36949);
static_assert(computeFunctionId("getTemperature") == 49449);
static_assert(computeFunctionId("temperatureChanged") == 58857);

TEST(Names, StayClearOfTheReservedIdentifiersAndResolveToTheSmallest) {
    nipcconnector::CallbackManager manager;
    std::map<std::uint16_t, std::string> smallest;
    std::size_t collisions = 0;
    for (int i = 2000; i > 0; --i) {
        const std::string name = "caf\xC3\xA9" + std::to_string(i);
        const auto id = manager.getFunctionId(name);
        EXPECT_TRUE(id >= 1004 && id <= 65279) << name;
        EXPECT_EQ(id, computeFunctionId(name));
        EXPECT_EQ(manager.getFunctionId(name), id);
        const auto entry = smallest.emplace(id, name);
        collisions += entry.second ? 0 : 1;
        entry.first->second = std::min(entry.first->second, name);
    }
    EXPECT_GT(collisions, 0U);
    for (const auto& entry : smallest) EXPECT_EQ(manager.getRequestName(entry.first), entry.second);
    EXPECT_EQ(manager.getRequestName(1000), "");
}

TEST(Names, AreKnownBothWaysOnceThereIsMemory) {
    nipcconnector::CallbackManager manager;
    const std::string name(40, 'n');
    for (int allocation = 1; allocation < 9; ++allocation) {
        failNew(allocation);
        try {
            manager.getFunctionId(name);
        } catch (const std::bad_alloc&) {
        }
    }
    failNew(0);
    EXPECT_EQ(manager.getRequestName(manager.getFunctionId(name)), name);
}

TEST_F(ConnectorTest, OptionalOperationsOfTheContractHaveAnAnswer) {
    const Subject client = make(Role::Client);
    EXPECT_TRUE(client->GenericConnector::initialize());
    EXPECT_FALSE(client->IAsyncReqConnector::setRecurringCallback(nullptr));
    EXPECT_EQ(client->IAsyncReqConnector::makeAsyncRequestWithRecurringCallback("", "", nullptr, 0),
              RequestStatus::Failure);
}

}  // namespace
}  // namespace nipctest
