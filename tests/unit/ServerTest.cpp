#include "ConnectorTest.h"

namespace nipctest {
namespace {

using Server = ConnectorTest;

std::vector<char> bytes(const std::string& text) { return {text.begin(), text.end()}; }
constexpr const char* syncMissing = "Failed to find sync handler for request type %s";
constexpr const char* asyncMissing = "Failed to find async handler for request name %s";
constexpr const char* handling = "Handling async request with request name %s";
const Line sync = debug("received sync function");
const Line async = debug("received async function");

TEST_F(Server, SortsMessagesByTypeAndSaysWhyARequestFailed) {
    const Subject server = startedServer();
    server->registerSyncRequestHandler("empty", [](const char*, unsigned int) { return std::vector<char>(); });
    server->registerSyncRequestHandler("long", [](const char*, unsigned int) { return std::vector<char>(16385); });
    server->registerSyncRequestHandler("gone", [](const char*, unsigned int) { return bytes("gone"); });
    server->unregisterSyncRequestHandler("gone");
    server->registerAsyncRequestHandler("gone", nullptr);
    server->unregisterAsyncRequestHandler("gone");
    const Lines registrations = server.journal->lines();
    ASSERT_EQ(registrations.size(), 6U);
    EXPECT_EQ(Lines(registrations.begin() + 2, registrations.end()),
              (Lines{debug("Registering sync request handler for request type %s", "gone"),
                     debug("Unregistering sync request handler for request type %s", "gone"),
                     debug("Registering async request handler for request type %s", "gone"),
                     debug("Unregistering async request handler for request type %s", "gone")}));
    server.journal->clear();
    const Line failed = error("Failed to handle async request");
    const struct {
        std::uint32_t type;  // By the number that crosses the boundary.
        const char* request;
        int result, status;
        Lines lines;
    } cases[] = {{0, "gone", 0, -1, {sync, error(syncMissing, "gone")}},
                 {0, "empty", 0, -1, {sync, error(syncMissing, "empty")}},
                 {0, "long", -3, -3, {sync, error("Response size is greater than the buffer size")}},
                 {1, "gone", 0, -1, {async, debug(handling, "gone"), error(asyncMissing, "gone"), failed}},
                 {1, "?", 0, -1, {async, debug(handling, ""), error(asyncMissing, ""), failed}},
                 {2, "", 0, 0, {debug("received callback")}},
                 {3, "not for servers", 0, 0, {}},
                 {4, "", 0, 0, {debug("received broadcast event")}},
                 {5, "", 0, 0, {debug("received multicast event")}},
                 {6, "", 0, 0, {debug("Invalid NIPC type")}},
                 {7, "", 0, 0, {warn("unhandled NIPC type: %d", 7)}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.request);
        for (const bool nullPointers : {false, true}) {
            const Delivered delivered =
                platform.deliver({c.type, 3, computeFunctionId(c.request), 0, "four", 9, 77, nullPointers});
            EXPECT_EQ(delivered.result, c.result);
            EXPECT_EQ(delivered.status, nullPointers ? 77 : c.status);
            EXPECT_EQ(delivered.length, 4U);
            server.expectJournal(c.lines);
        }
    }
    EXPECT_TRUE(platform.calls(Operation::Callback).empty()) << "nobody answers in a missing handler's place";

    server.journal->onLine(handling, [] { failNew(1); });
    EXPECT_EQ(platform.deliverRequest(ASYNC_FUNCTION, 2000, "", 3).status, -1);
    EXPECT_EQ(server.journal->lines().back(),
              error("%s threw an exception: %s", "Server listener", std::bad_alloc().what()));
}

TEST_F(Server, TheLatestSyncHandlerAnswersUpToTheBuffersSize) {
    const Subject server = startedServer();
    server->registerSyncRequestHandler("get", [](const char*, unsigned int) { return bytes("replaced"); });
    server->registerSyncRequestHandler(
        "get", [](const char* data, unsigned int length) { return std::vector<char>(16384, data[length - 1]); });
    server.journal->clear();
    const std::string answer(16384, 'x');
    const Delivered delivered = platform.deliverRequest(SYNC_FUNCTION, computeFunctionId("get"), "ax", 3);
    EXPECT_EQ(delivered.status, 0);
    EXPECT_EQ(delivered.data, answer);
    server.expectJournal({sync, debug("Sending syncresponse to clientId %d with payload %s", 3, answer.c_str())});
}

TEST_F(Server, AnAsyncHandlerAnswersLaterAndAsOftenAsItLikes) {
    const Subject server = startedServer();
    smarthome::AsyncResponseCallback respond;
    std::string requestId;
    EXPECT_TRUE(server->registerAsyncRequestHandler("set", [&](auto data, auto length, auto responder, auto& id) {
        EXPECT_EQ(std::string(data, length), "21");
        respond = responder;
        requestId = id;
    }));
    EXPECT_EQ(platform.deliverRequest(ASYNC_FUNCTION, computeFunctionId("set"), "21", 7, 42).status, 0);
    EXPECT_EQ(requestId, "7_42");
    server.journal->clear();
    respond(true, "done", 4);
    server.expectJournal(
        {debug("Sending async response to clientId %d with payload %s", 7, "done"),
         debug("Sending %s to clientId %d with payloadSize %zu", "async response", 7, std::size_t{4})});
    platform.failNext(Operation::Callback, -5);
    respond(false, nullptr, 0);
    server.expectJournal({debug("Sending async response to clientId %d with payload %s", 7, ""),
                          debug("Sending %s to clientId %d with payloadSize %zu", "async response", 7, std::size_t{0}),
                          error("Failed to send %s to clientId %d, status: %d", "async response", 7, -5),
                          metric("EventSendFailure FailureReason=\"NipcCallbackFailedWithStatus-5\" "
                                 "RequestType=\"AsyncResponse\" PayloadSize=0")});
    const auto calls = platform.calls(Operation::Callback);
    ASSERT_EQ(calls.size(), 2U);
    EXPECT_EQ(calls[0].payload, "done");
    for (const auto& call : calls) {
        EXPECT_EQ(call.functionId, call.payload.empty() ? ASYNC_RESPONSE_FAILURE_ID : ASYNC_RESPONSE_SUCCESS_ID);
        EXPECT_EQ(call.clientId, 7);
        EXPECT_EQ(call.requestContext, 42U);
        EXPECT_EQ(call.handle, Access::state(*server).handle);
    }
}

TEST_F(Server, EventsGoToEveryClientThatIsThere) {
    const Subject server = startedServer();
    const auto publishing = [](std::size_t size, std::size_t count) {
        return debug("Publishing event %s with data size %zu to %zu clients", "changed", size, count);
    };
    EXPECT_TRUE(server->publishEvent("changed"));
    for (const std::uint16_t id : {std::uint16_t{5}, std::uint16_t{5}, std::uint16_t{6}}) clientConnects(id);
    platform.deliverEvent(NEX_NIPC_EVENT_CLIENT_DISCONNECTED, 6);
    platform.deliverEvent(NEX_NIPC_EVENT_CLIENT_DISCONNECTED, 99);
    platform.failNext(Operation::Callback, -5);
    EXPECT_TRUE(server->publishEvent("changed", "now")) << "whatever became of the sends";
    server.expectJournal(
        {publishing(0, 0), debug("client %d is connected\n", 5), debug("client %d is connected\n", 5),
         debug("client %d is connected\n", 6), debug("client %d is disconnected\n", 6),
         debug("client %d is disconnected\n", 99), publishing(3, 1),
         debug("Sending %s to clientId %d with payloadSize %zu", "event", 5, std::size_t{3}),
         error("Failed to send %s to clientId %d, status: %d", "event", 5, -5),
         metric("EventSendFailure FailureReason=\"NipcCallbackFailedWithStatus-5\" RequestType=\"Event\" "
                "PayloadSize=3")});
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
    const Subject bare = up(makeBare(Role::Server));
    EXPECT_FALSE(bare->registerSyncRequestHandler("get", nullptr));
    EXPECT_FALSE(bare->registerAsyncRequestHandler("set", nullptr));
    bare->unregisterSyncRequestHandler("get");
    bare->unregisterAsyncRequestHandler("set");
    EXPECT_FALSE(bare->publishEvent("changed") || bare->publishEvent("changed", "") ||
                 bare->publishEvent("changed", "", 0));
    const Delivered delivered = platform.deliverRequest(SYNC_FUNCTION, 2000, "", 3);
    EXPECT_EQ(delivered.result, -1);
    EXPECT_EQ(delivered.status, -1) << "as the platform preset it";
    bare.expectJournal({});
    EXPECT_FALSE(Access::handleAsyncRequest(*bare, "set"));
    bare.expectJournal({debug(handling, "set"), error("No callback manager found for this connector")});
    nexNipc_parameter_t nobodys{};
    for (auto* const parameter : {static_cast<nexNipc_parameter_t*>(nullptr), &nobodys}) {
        EXPECT_EQ(platform.endpoint().listener(parameter), -1);
    }
}

}  // namespace
}  // namespace nipctest
