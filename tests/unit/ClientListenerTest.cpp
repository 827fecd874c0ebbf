#include "ConnectorTest.h"

namespace nipctest {
namespace {

using ClientListener = ConnectorTest;

Line notFound(int functionId, unsigned long long id) {
    return error("Callback not found with id %llu, functionId %d", id, functionId);
}

TEST_F(ClientListener, SortsMessagesByTypeAndIdentifier) {
    const Subject client = connectedClient();
    const Line callback = debug("Handle callback");
    const struct {
        std::uint32_t type;  // By the number that crosses the boundary, as the identifiers.
        std::uint16_t id;
        std::uintptr_t context;
        Lines lines;
    } cases[] = {{0, 0, 0, {debug("Handle sync function")}},
                 {1, 0, 0, {debug("Handle async function")}},
                 {2, 1001, 0, {callback, debug("Handle server fd processing completed")}},
                 {2, 1002, 9, {callback, notFound(1002, 9)}},
                 {2, 1002, 1, {callback, notFound(1002, 1)}},  // No recurring callback is set.
                 {2, 2000, 0, {callback, debug("Proactive event"), error("Failed to handle event")}},
                 {3, 65533, 0, {debug("SERVER_UP event from UUID: %d", 65000)}},
                 {3, 65531, 0, {}},
                 {4, 0, 0, {debug("Handle broadcast event")}},
                 {5, 0, 0, {debug("Handle multicast event")}},
                 {6, 0, 0, {debug("Invalid NIPC callback")}},
                 {7, 0, 0, {warn("unhandled NIPC type: %d", 7)}}};
    for (const auto& c : cases) {
        for (const bool nullPointers : {false, true}) {
            EXPECT_EQ(platform.deliver({c.type, 65000, c.id, c.id, {}, c.context, 0, nullPointers}).result, 0);
            client.expectJournal(c.lines);
        }
    }
    nexNipc_parameter_t nobodys{};
    for (auto* const parameter : {static_cast<nexNipc_parameter_t*>(nullptr), &nobodys}) {
        EXPECT_EQ(platform.endpoint().listener(parameter), -1);
    }
}

TEST_F(ClientListener, RunsACallbackOnceWhateverTheAnswer) {
    const Subject client = connectedClient();
    const struct {
        std::uintptr_t id;
        std::uint16_t answer;
        const char* seen;
    } cases[] = {{2, ASYNC_RESPONSE_SUCCESS_ID, "+why"}, {3, ASYNC_RESPONSE_FAILURE_ID, "-why"}, {4, 1500, "-why"}};
    for (const auto& c : cases) {
        std::string seen;
        const auto callback = [&](bool success, const char* data, unsigned int length) {
            seen += (success ? "+" : "-") + std::string(data, length);
        };
        ASSERT_EQ(client->makeAsyncRequest("", "name", "", 0, callback), RequestStatus::Success);
        EXPECT_EQ(platform.calls(Operation::RpcAsync).back().requestContext, c.id);
        client.journal->clear();
        platform.deliverCallback(c.answer, "why", c.id);
        platform.deliverCallback(c.answer, "again", c.id);
        EXPECT_EQ(seen, c.seen);
        client.expectJournal({debug("Handle callback"),
                              debug("Executed callback with id %llu, functionId %d",
                                    static_cast<unsigned long long>(c.id), static_cast<int>(c.answer)),
                              debug("Handle callback"), notFound(c.answer, c.id)});
    }
}

TEST_F(ClientListener, DeliversEventsToTheLatestSubscriber) {
    const Subject client = connectedClient();
    std::string seen;
    EXPECT_TRUE(client->subscribeForEvent("", "changed", [](const char*, unsigned int) { FAIL() << "was replaced"; }));
    EXPECT_TRUE(client->subscribeForEvent("anybody", "changed",
                                          [&](const char* data, unsigned int length) { seen.assign(data, length); }));
    platform.deliverCallback(computeFunctionId("changed"), "now");
    EXPECT_TRUE(client->unsubscribeForEvent("", "changed"));
    EXPECT_TRUE(client->unsubscribeForEvent("", "never subscribed"));
    EXPECT_TRUE(client->unsubscribeFromPublisher("anybody"));
    platform.deliverCallback(computeFunctionId("changed"), "later");
    EXPECT_EQ(seen, "now");
    const Line registering = info("Registering event handler for eventType=%s", "changed");
    const Line callback = debug("Handle callback");
    const Line event = debug("Proactive event");
    client.expectJournal({registering, registering, callback, event, debug("Handled event"),
                          info("Unregistering event handler for eventType=%s", "changed"),
                          info("Unregistering event handler for eventType=%s", "never subscribed"),
                          warn("Unsubscribe from publisher not implemented"), callback, event,
                          error("Failed to handle event")});

    const Subject bare = makeBare(Role::Client);
    EXPECT_FALSE(bare->subscribeForEvent("", "changed", nullptr));
    EXPECT_FALSE(bare->unsubscribeForEvent("", "changed"));
    EXPECT_FALSE(Access::handleFunctionCallback(*bare, 1002));
    bare.expectJournal({error("No callback manager found for this connector")});
}

}  // namespace
}  // namespace nipctest
