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
    const auto expect = [&](std::uint32_t type, int id, std::uintptr_t context, const std::vector<Line>& lines) {
        Message message;
        message.type = type;
        message.peerId = 65000;
        message.functionId = message.eventId = static_cast<std::uint16_t>(id);
        message.requestContext = context;
        EXPECT_EQ(platform.deliver(message).result, 0);
        client.expectJournal(lines, {});
        message.nullPointers = true;
        EXPECT_EQ(platform.deliver(message).result, 0);
        client.expectJournal(lines, {});
    };
    expect(SYNC_FUNCTION, 0, 0, {debug("Handle sync function")});
    expect(ASYNC_FUNCTION, 0, 0, {debug("Handle async function")});
    expect(CALLBACK, 1001, 0, {callback, debug("Handle server fd processing completed")});
    expect(CALLBACK, 1002, 9, {callback, notFound(1002, 9)});
    expect(CALLBACK, 1002, 1, {callback, notFound(1002, 1)});  // No recurring callback is set.
    expect(CALLBACK, 2000, 0, {callback, debug("Proactive event"), error("Failed to handle event")});
    expect(EVENT, NEX_NIPC_EVENT_SERVER_UP, 0, {debug("SERVER_UP event from UUID: %d", 65000)});
    expect(EVENT, NEX_NIPC_EVENT_CLIENT_CONNECTED, 0, {});
    expect(BROADCAST_EVENT, 0, 0, {debug("Handle broadcast event")});
    expect(MULTICAST_EVENT, 0, 0, {debug("Handle multicast event")});
    expect(INVALID, 0, 0, {debug("Invalid NIPC callback")});
    expect(7, 0, 0, {warn("unhandled NIPC type: %d", 7)});
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
        client.expectJournal({debug("Handle callback"),
                              debug("Executed callback with id %llu, functionId %d",
                                    static_cast<unsigned long long>(id), static_cast<int>(answer)),
                              debug("Handle callback"), notFound(answer, id)},
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
    const Line registering = info("Registering event handler for eventType=%s", "changed");
    client.expectJournal({registering, registering}, {});

    platform.deliverCallback(computeFunctionId("changed"), "now");
    EXPECT_EQ(seen, "now");
    client.expectJournal({debug("Handle callback"), debug("Proactive event"), debug("Handled event")}, {});

    EXPECT_TRUE(client->unsubscribeForEvent("", "changed"));
    EXPECT_TRUE(client->unsubscribeForEvent("", "never subscribed"));
    EXPECT_TRUE(client->unsubscribeFromPublisher("anybody"));
    client.expectJournal({info("Unregistering event handler for eventType=%s", "changed"),
                          info("Unregistering event handler for eventType=%s", "never subscribed"),
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
        {info("NEX_NIPC_EVENT_CONNECTION_DONE with status: %d", 0), info("Successfully connected to server")}, {});
    EXPECT_EQ(Access::connectionStartTime(*client), time.now());
}

}  // namespace
}  // namespace nipctest
