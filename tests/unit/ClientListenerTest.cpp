#include "ConnectorTest.h"

namespace nipctest {
namespace {

using ClientListener = ConnectorTest;

Line handled(const char* what, int functionId, unsigned long long id) {
    return {what[0] == 'E' ? 'D' : 'E', std::string(what) + " with id %llu, functionId %d",
            std::string(what) + " with id " + std::to_string(id) + ", functionId " + std::to_string(functionId)};
}

TEST_F(ClientListener, SortsMessagesByTypeAndIdentifier) {
    const Subject client = connectedClient();
    const Line callback = debug("Handle callback");
    const struct {
        const char* name;
        std::uint32_t type;
        std::uint16_t functionId, eventId;
        std::uintptr_t context;
        std::vector<Line> lines;
    } cases[] = {
        {"sync", SYNC_FUNCTION, 0, 0, 0, {debug("Handle sync function")}},
        {"async", ASYNC_FUNCTION, 0, 0, 0, {debug("Handle async function")}},
        {"acknowledgement", CALLBACK, 1001, 0, 0, {callback, debug("Handle server fd processing completed")}},
        {"answer nobody waits for", CALLBACK, 1002, 0, 9, {callback, handled("Callback not found", 1002, 9)}},
        {"answer of a recurring request without callback",
         CALLBACK,
         1002,
         0,
         1,
         {callback, handled("Callback not found", 1002, 1)}},
        {"event nobody subscribed",
         CALLBACK,
         2000,
         0,
         0,
         {callback, debug("Proactive event"), error("Failed to handle event")}},
        {"server up",
         EVENT,
         0,
         NEX_NIPC_EVENT_SERVER_UP,
         0,
         {debug("SERVER_UP event from UUID: %d", "SERVER_UP event from UUID: 65000")}},
        {"event not for clients", EVENT, 0, NEX_NIPC_EVENT_CLIENT_CONNECTED, 0, {}},
        {"broadcast", BROADCAST_EVENT, 0, 0, 0, {debug("Handle broadcast event")}},
        {"multicast", MULTICAST_EVENT, 0, 0, 0, {debug("Handle multicast event")}},
        {"invalid", INVALID, 0, 0, 0, {debug("Invalid NIPC callback")}},
        {"unknown", 7, 0, 0, 0, {warn("unhandled NIPC type: %d", "unhandled NIPC type: 7")}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Message message;
        message.type = c.type;
        message.peerId = 65000;
        message.functionId = c.functionId;
        message.eventId = c.eventId;
        message.requestContext = c.context;
        EXPECT_EQ(platform.deliver(message).result, 0);
        client.expectJournal(c.lines, {});
        message.nullPointers = true;
        EXPECT_EQ(platform.deliver(message).result, 0);
        client.expectJournal(c.lines, {});
    }
    EXPECT_EQ(platform.listener()(nullptr), -1);
    nexNipc_parameter_t nobodys{};
    EXPECT_EQ(platform.listener()(&nobodys), -1);
}

TEST_F(ClientListener, RunsACallbackOnceWhateverTheAnswer) {
    const Subject client = connectedClient();
    int runs = 0;
    for (const std::uintptr_t id : {2U, 3U}) {  // The first ids of a connector.
        ASSERT_EQ(client->makeAsyncRequest("", "name", "", 0,
                                           [&](bool success, const char*, unsigned int) {
                                               ++runs;
                                               EXPECT_EQ(success, id == 2);
                                           }),
                  RequestStatus::Success);
        client.journal->clear();
        const std::uint16_t answer = id == 2 ? ASYNC_RESPONSE_SUCCESS_ID : 1500;
        platform.deliverCallback(answer, "", id);
        platform.deliverCallback(answer, "", id);
        client.expectJournal({debug("Handle callback"), handled("Executed callback", answer, id),
                              debug("Handle callback"), handled("Callback not found", answer, id)},
                             {});
    }
    EXPECT_EQ(runs, 2);
}

TEST_F(ClientListener, DeliversEventsToTheLatestSubscriber) {
    const Subject client = connectedClient();
    std::string seen;
    EXPECT_TRUE(client->subscribeForEvent("", "changed", [](const char*, unsigned int) { FAIL() << "was replaced"; }));
    EXPECT_TRUE(client->subscribeForEvent("anybody", "changed",
                                          [&](const char* data, unsigned int length) { seen.assign(data, length); }));
    const Line registering =
        info("Registering event handler for eventType=%s", "Registering event handler for eventType=changed");
    client.expectJournal({registering, registering}, {});

    platform.deliverCallback(computeFunctionId("changed"), "now");
    EXPECT_EQ(seen, "now");
    client.expectJournal({debug("Handle callback"), debug("Proactive event"), debug("Handled event")}, {});

    EXPECT_TRUE(client->unsubscribeForEvent("", "changed"));
    EXPECT_TRUE(client->unsubscribeForEvent("", "never subscribed"));
    EXPECT_TRUE(client->unsubscribeFromPublisher("anybody"));
    client.expectJournal(
        {info("Unregistering event handler for eventType=%s", "Unregistering event handler for eventType=changed"),
         info("Unregistering event handler for eventType=%s",
              "Unregistering event handler for eventType=never subscribed"),
         warn("Unsubscribe from publisher not implemented")},
        {});
    platform.deliverCallback(computeFunctionId("changed"), "later");
    EXPECT_EQ(seen, "now");
    EXPECT_EQ(client.journal->count("Failed to handle event"), 1U);
}

TEST_F(ClientListener, WithoutManagerNothingIsKept) {
    const Subject bare = makeBare(Role::Client);
    EXPECT_FALSE(bare->subscribeForEvent("", "changed", nullptr));
    EXPECT_FALSE(bare->unsubscribeForEvent("", "changed"));
    EXPECT_FALSE(Access::handleFunctionCallback(*bare, 1002));
    bare.expectJournal({error("No callback manager found for this connector")}, {});
}

TEST_F(ClientListener, TheConnectorHearsOfItsConnectionFromThePlatformToo) {
    const Subject client = connectedClient();
    time.clock += 5'000'000;
    platform.deliverEvent(NEX_NIPC_EVENT_CONNECTION_DONE);
    client.expectJournal(
        {info("NEX_NIPC_EVENT_CONNECTION_DONE with status: %d", "NEX_NIPC_EVENT_CONNECTION_DONE with status: 0"),
         info("Successfully connected to server")},
        {});
    EXPECT_EQ(Access::connectionStartTime(*client), time.now());
}

}  // namespace
}  // namespace nipctest
