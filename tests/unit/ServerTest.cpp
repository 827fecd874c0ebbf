#include "ConnectorTest.h"

namespace nipctest {
namespace {

using Server = ConnectorTest;

std::vector<char> bytes(const std::string& text) { return {text.begin(), text.end()}; }
constexpr const char* syncMissing = "Failed to find sync handler for request type %s";
constexpr const char* asyncMissing = "Failed to find async handler for request name %s";
constexpr const char* handling = "Handling async request with request name %s";

TEST_F(Server, SortsMessagesByTypeAndSaysWhyARequestFailed) {
    const Subject server = startedServer();
    server->registerSyncRequestHandler("empty", [](const char*, unsigned int) { return std::vector<char>(); });
    server->registerSyncRequestHandler("long", [](const char*, unsigned int) { return std::vector<char>(16385); });
    server->registerSyncRequestHandler("gone", [](const char*, unsigned int) { return bytes("gone"); });
    server->unregisterSyncRequestHandler("gone");
    server->registerAsyncRequestHandler("gone", nullptr);
    server->unregisterAsyncRequestHandler("gone");
    const Line sync = debug("received sync function");
    const Line async = debug("received async function");
    const Line failed = error("Failed to handle async request");
    server.journal->clear();
    const auto expect = [&](std::uint32_t type, const char* request, int result, int status,
                            const std::vector<Line>& lines) {
        SCOPED_TRACE(request);
        Message message;
        message.type = type;
        message.functionId = computeFunctionId(request);
        message.payload = "four";
        message.status = 77;
        const Delivered delivered = platform.deliver(message);
        EXPECT_EQ(delivered.result, result);
        EXPECT_EQ(delivered.status, status);
        EXPECT_EQ(delivered.length, 4U);
        server.expectJournal(lines, {});
        message.nullPointers = true;
        EXPECT_EQ(platform.deliver(message).result, result);
        server.expectJournal(lines, {});
    };
    expect(SYNC_FUNCTION, "gone", 0, -1, {sync, error(syncMissing, "gone")});
    expect(SYNC_FUNCTION, "empty", 0, -1, {sync, error(syncMissing, "empty")});
    expect(SYNC_FUNCTION, "long", -3, -3, {sync, error("Response size is greater than the buffer size")});
    expect(ASYNC_FUNCTION, "gone", 0, -1, {async, debug(handling, "gone"), error(asyncMissing, "gone"), failed});
    expect(ASYNC_FUNCTION, "?", 0, -1, {async, debug(handling, ""), error(asyncMissing, ""), failed});
    expect(CALLBACK, "", 0, 0, {debug("received callback")});
    expect(EVENT, "not for servers", 0, 0, {});
    expect(BROADCAST_EVENT, "", 0, 0, {debug("received broadcast event")});
    expect(MULTICAST_EVENT, "", 0, 0, {debug("received multicast event")});
    expect(INVALID, "", 0, 0, {debug("Invalid NIPC type")});
    expect(7, "", 0, 0, {warn("unhandled NIPC type: %d", 7)});
}

TEST_F(Server, ASyncHandlerAnswersUpToTheBuffersSize) {
    const Subject server = startedServer();
    server->registerSyncRequestHandler("get", [](const char*, unsigned int) { return bytes("replaced"); });
    server->registerSyncRequestHandler("get", [](const char* data, unsigned int length) {
        return std::vector<char>(std::stoul(std::string(data, length)), 'x');
    });
    server.journal->clear();
    const auto get = [&](const std::string& size) {
        return platform.deliverRequest(SYNC_FUNCTION, computeFunctionId("get"), size, 3);
    };
    Delivered delivered = get("5");
    EXPECT_EQ(delivered.status, 0);
    EXPECT_EQ(delivered.data, "xxxxx");
    server.expectJournal(
        {debug("received sync function"), debug("Sending syncresponse to clientId %d with payload %s", 3, "xxxxx")},
        {});
    delivered = get("16384");
    EXPECT_EQ(delivered.status, 0);
    EXPECT_EQ(delivered.data, std::string(16384, 'x'));
}

TEST_F(Server, AnAsyncHandlerAnswersLaterAndAsOftenAsItLikes) {
    const Subject server = startedServer();
    smarthome::AsyncResponseCallback respond;
    std::string requestId;
    EXPECT_TRUE(server->registerAsyncRequestHandler(
        "set",
        [&](const char* data, unsigned int length, smarthome::AsyncResponseCallback responder, const std::string& id) {
            EXPECT_EQ(std::string(data, length), "21");
            respond = std::move(responder);
            requestId = id;
        }));
    server.expectJournal({debug("Registering async request handler for request type %s", "set")}, {});
    EXPECT_EQ(platform.deliverRequest(ASYNC_FUNCTION, computeFunctionId("set"), "21", 7, 42).status, 0);
    EXPECT_EQ(requestId, "7_42");
    server.journal->clear();
    respond(true, "done", 4);
    server.expectJournal({debug("Sending async response to clientId %d with payload %s", 7, "done"),
                          debug("Sending %s to clientId %d with payloadSize %zu", "async response", 7, std::size_t{4})},
                         {});
    platform.failNext(Operation::Callback, -5);
    respond(false, nullptr, 0);
    EXPECT_EQ(server.journal->lines().back(),
              error("Failed to send %s to clientId %d, status: %d", "async response", 7, -5));
    EXPECT_EQ(server.journal->metrics().back(),
              "EventSendFailure FailureReason=\"NipcCallbackFailedWithStatus-5\" RequestType=\"AsyncResponse\" "
              "PayloadSize=0");
    const auto calls = platform.calls(Operation::Callback);
    ASSERT_EQ(calls.size(), 2U);
    EXPECT_EQ(calls[0].functionId, ASYNC_RESPONSE_SUCCESS_ID);
    EXPECT_EQ(calls[0].payload, "done");
    EXPECT_EQ(calls[1].functionId, ASYNC_RESPONSE_FAILURE_ID);
    for (const auto& call : calls) {
        EXPECT_EQ(call.clientId, 7);
        EXPECT_EQ(call.requestContext, 42U);
        EXPECT_EQ(call.handle, Access::handle(*server));
    }
    platform.deliverRequest(ASYNC_FUNCTION, computeFunctionId("set"), "21", 3);
    EXPECT_EQ(requestId, "3_0");
}

TEST_F(Server, EventsGoToEveryClientThatIsThere) {
    const Subject server = startedServer();
    EXPECT_TRUE(server->publishEvent("changed"));
    const auto publishing = [](std::size_t size, std::size_t count) {
        return debug("Publishing event %s with data size %zu to %zu clients", "changed", size, count);
    };
    server.expectJournal({publishing(0, 0)}, {});
    for (const std::uint16_t id : {std::uint16_t{5}, std::uint16_t{5}, std::uint16_t{6}}) clientConnects(id);
    platform.deliverEvent(NEX_NIPC_EVENT_CLIENT_DISCONNECTED, 6);
    platform.deliverEvent(NEX_NIPC_EVENT_CLIENT_DISCONNECTED, 99);
    EXPECT_EQ(server.journal->lines()[0], debug("client %d is connected\n", 5));
    EXPECT_EQ(server.journal->lines()[3], debug("client %d is disconnected\n", 6));
    server.journal->clear();

    platform.failNext(Operation::Callback, -5);
    EXPECT_TRUE(server->publishEvent("changed", "now")) << "whatever became of the sends";
    server.expectJournal(
        {publishing(3, 1), debug("Sending %s to clientId %d with payloadSize %zu", "event", 5, std::size_t{3}),
         error("Failed to send %s to clientId %d, status: %d", "event", 5, -5)},
        {"EventSendFailure FailureReason=\"NipcCallbackFailedWithStatus-5\" RequestType=\"Event\" PayloadSize=3"});
    EXPECT_TRUE(server->publishEvent("changed"));
    EXPECT_TRUE(server->publishEvent("changed", nullptr, 10));

    const Subject other = startedServer();  // Clients are the process's.
    EXPECT_TRUE(other->publishEvent("changed", std::string(16383, 'x')));
    const auto calls = platform.calls(Operation::Callback);
    ASSERT_EQ(calls.size(), 4U);
    EXPECT_TRUE(calls[1].nullPayload);
    EXPECT_EQ(calls[3].payload.size(), 16383U);
    EXPECT_EQ(calls[3].functionId, computeFunctionId("changed"));
    EXPECT_EQ(calls[3].requestContext, 0U);
}

TEST_F(Server, WithoutManagerNothingIsServed) {
    const Subject bare = makeBare(Role::Server);
    up(bare);
    EXPECT_FALSE(bare->registerSyncRequestHandler("get", nullptr));
    EXPECT_FALSE(bare->registerAsyncRequestHandler("set", nullptr));
    bare->unregisterSyncRequestHandler("get");
    bare->unregisterAsyncRequestHandler("set");
    EXPECT_FALSE(bare->publishEvent("changed") || bare->publishEvent("changed", "") ||
                 bare->publishEvent("changed", "", 0));
    const Delivered delivered = platform.deliverRequest(SYNC_FUNCTION, 2000, "", 3);
    EXPECT_EQ(delivered.result, -1);
    EXPECT_EQ(delivered.status, -1) << "as the platform preset it";
    bare.expectJournal({}, {});
    EXPECT_FALSE(Access::handleAsyncRequest(*bare, "set"));
    bare.expectJournal({debug(handling, "set"), error("No callback manager found for this connector")}, {});
    EXPECT_EQ(platform.listener()(nullptr), -1);
    nexNipc_parameter_t nobodys{};
    EXPECT_EQ(platform.listener()(&nobodys), -1);
}

}  // namespace
}  // namespace nipctest
