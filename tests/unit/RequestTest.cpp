#include <cstring>

#include "ConnectorTest.h"

namespace nipctest {
namespace {

using Request = ConnectorTest;
using Lines = std::vector<Line>;
using Metrics = std::vector<std::string>;

const Line sending = debug("Sending async request via NIPC");
const Line payloadLine = debug("Sending async request with payload %s", "Sending async request with payload hi");
const Line syncPayloadLine = debug("Sending sync request with payload %s", "Sending sync request with payload hi");
const Line idLine = debug("Registered callback with id %llu", "Registered callback with id 2");
const Line recurringLine = debug("Sending async request with recurring callback id %llu",
                                 "Sending async request with recurring callback id 1");
const Line deregistering = error("Failed to send async request, deregistering callback");
const Line recurringFailed = error("makeAsyncRequestWithRecurringCallback: Failed to send async request");
const Line reconnecting = debug("Not connected to service, attempting to reconnect on request");
const Line starting = debug("Starting non-blocking connection to VLRS service");
const Line invalid = error("Service config is invalid for client NIPCConnector");
const Line notInitiated = error("Failed to initiate reconnection");

const std::string asyncFailure =
    "AsyncRequestFailure RequestName=\"name\" FailureReason=\"SendRequestFailed\" PayloadSize=2";

RequestStatus makeAsync(const Subject& client) {
    return client->makeAsyncRequest("", "name", "hi", 2, [](bool, const char*, unsigned int) { FAIL(); });
}
RequestStatus makeSync(const Subject& client) {
    const auto result = client->makeSyncRequest("", "name", "hi", 2);
    EXPECT_TRUE(result.response.empty());
    return result.status;
}
RequestStatus makeRecurring(const Subject& client) {
    return client->makeAsyncRequestWithRecurringCallback("", "name", "hi", 2);
}
void setRecurring(const Subject& client) {
    EXPECT_TRUE(client->setRecurringCallback([](bool, const char*, unsigned int) {}));
}

TEST_F(Request, FailuresSayWhy) {
    const auto connectedSubject = [this] { return connectedClient(); };
    const auto bareSubject = [this] { return makeBare(Role::Client); };
    const auto connecting = [this] {
        const Subject client = make(Role::Client, {"", 65535});
        client->initialize();
        return client;
    };
    const auto unstarted = [this] { return make(Role::Client, {"", 65535}); };
    const auto withRecurring = [this] {
        const Subject client = connectedClient();
        setRecurring(client);
        return client;
    };
    const auto nothing = [] {};

    const struct {
        const char* name;
        std::function<Subject()> subject;
        std::function<void()> script;
        RequestStatus (*request)(const Subject&);
        Lines lines;
        Metrics metrics;
        std::uint64_t asyncFailures, syncFailures, whileDisconnected;
    } cases[] = {
        {"async, no manager",
         bareSubject,
         nothing,
         makeAsync,
         {},
         {"AsyncRequestFailure RequestName=\"name\" FailureReason=\"NoCallbackManager\" PayloadSize=2"},
         1,
         0,
         0},
        {"async, platform refuses",
         connectedSubject,
         [&] { platform.failNext(Operation::RpcAsync, -5); },
         makeAsync,
         {payloadLine, idLine, sending,
          error("Failed to send async request, status: %d", "Failed to send async request, status: -5"), deregistering},
         {asyncFailure},
         1,
         0,
         0},
        {"async, connecting",
         connecting,
         nothing,
         makeAsync,
         {payloadLine, idLine, debug("Connection in progress, request cannot be sent now"), deregistering},
         {"RequestWhileDisconnected RequestType=\"Async\" ConnectionState=\"Reconnecting\"", asyncFailure},
         1,
         0,
         1},
        {"async, disconnected",
         unstarted,
         nothing,
         makeAsync,
         {payloadLine, idLine, reconnecting, starting, invalid, notInitiated, deregistering},
         {"RequestWhileDisconnected RequestType=\"Async\" ConnectionState=\"Disconnected\"", asyncFailure},
         1,
         0,
         1},
        {"sync, no manager",
         bareSubject,
         nothing,
         makeSync,
         {},
         {"SyncRequestFailure FailureReason=\"NoCallbackManager\""},
         0,
         1,
         0},
        {"sync, platform refuses",
         connectedSubject,
         [&] { platform.failNext(Operation::RpcSync, -5); },
         makeSync,
         {syncPayloadLine, error("reason=RPCSyncFailed, status=%d", "reason=RPCSyncFailed, status=-5")},
         {"SyncRequestFailure FailureReason=\"SendRequestFailed\""},
         0,
         1,
         0},
        {"sync, service fails",
         connectedSubject,
         [&] {
             platform.answerSyncWith({"lost", -3, {}});
         },
         makeSync,
         {syncPayloadLine,
          error("reason=RPCSyncFailed, rpc_params.status=%d", "reason=RPCSyncFailed, rpc_params.status=-3")},
         {"SyncRequestFailure FailureReason=\"SendRequestFailed\""},
         0,
         1,
         0},
        {"sync, connecting",
         connecting,
         nothing,
         makeSync,
         {syncPayloadLine, debug("Connection in progress, request cannot be sent now")},
         {"RequestWhileDisconnected RequestType=\"Sync\" ConnectionState=\"Reconnecting\"",
          "SyncRequestFailure FailureReason=\"SendRequestFailed\""},
         0,
         1,
         0},
        {"recurring, no manager",
         bareSubject,
         nothing,
         makeRecurring,
         {error("makeAsyncRequestWithRecurringCallback: No callback manager found")},
         {},
         0,
         0,
         0},
        {"recurring, none set",
         connectedSubject,
         nothing,
         makeRecurring,
         {error("makeAsyncRequestWithRecurringCallback: No recurring callback registered, call setRecurringCallback "
                "first")},
         {},
         0,
         0,
         0},
        {"recurring, platform refuses",
         withRecurring,
         [&] { platform.failNext(Operation::RpcAsync, -5); },
         makeRecurring,
         {recurringLine, sending,
          error("Failed to send async request, status: %d", "Failed to send async request, status: -5"),
          recurringFailed},
         {"AsyncRequestFailure RequestName=\"name\" FailureReason=\"SendRecurringRequestFailed\" PayloadSize=2"},
         1,
         0,
         0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Subject client = c.subject();
        client.journal->clear();
        c.script();
        EXPECT_EQ(c.request(client), RequestStatus::Failure);
        client.expectJournal(c.lines, c.metrics);
        EXPECT_EQ(Access::asyncRequestFailureCount(*client), c.asyncFailures);
        EXPECT_EQ(Access::syncRequestFailureCount(*client), c.syncFailures);
        EXPECT_EQ(Access::asyncRequestWhileDisconnectedCount(*client), c.whileDisconnected);
        platform.deliverCallback(ASYNC_RESPONSE_SUCCESS_ID, "", 2);  // Its callback is gone, and would fail the test.
    }
    const Subject bare = makeBare(Role::Client);
    EXPECT_FALSE(bare->setRecurringCallback(nullptr));
    bare.expectJournal({error("setRecurringCallback: No callback manager found")}, {});
}

TEST_F(Request, ARequestWhileDisconnectedReconnects) {
    const Subject client = make(Role::Client);
    EXPECT_EQ(makeSync(client), RequestStatus::Failure);
    expectConnected(client, 1);
    platform.answerSyncWith({std::string("a\0b", 3), 0, {}});
    const auto result = client->makeSyncRequest("", "name", "hi", 2);
    EXPECT_EQ(result.status, RequestStatus::Success);
    EXPECT_EQ(std::string(result.response.data(), result.response.size()), std::string("a\0b", 3));
}

TEST_F(Request, SyncAnswersEndWhereTheBufferEnds) {
    const Subject client = connectedClient();
    const struct {
        SyncAnswer answer;
        std::size_t size;
    } cases[] = {{{"", 0, {}}, 0}, {{std::string(16384, 'x'), 0, {}}, 16384}, {{"x", 0, 70000}, 16384}};
    for (const auto& c : cases) {
        platform.answerSyncWith(c.answer);
        const auto result = client->makeSyncRequest("", "name", nullptr, 0);
        EXPECT_EQ(result.status, RequestStatus::Success);
        EXPECT_EQ(result.response.size(), c.size);
    }
    EXPECT_TRUE(Access::sendSync(*client, "", 0)) << "nobody need ask for the answer";
}

TEST_F(Request, RecordsAreFilledAsThePlatformExpects) {
    const Subject client = connectedClient();
    const std::uint16_t id = computeFunctionId("name");
    std::string answer;
    const std::string payload("p\0q", 3);
    EXPECT_EQ(client->makeAsyncRequest("ignored", "name", payload.data(), 3,
                                       [&](bool success, const char* data, unsigned int length) {
                                           answer = (success ? "yes " : "no ") + std::string(data, length);
                                       }),
              RequestStatus::Success);
    client.expectJournal(
        {debug("Sending async request with payload %s", "Sending async request with payload p"), idLine, sending}, {});
    const Call call = platform.calls(Operation::RpcAsync).at(0);
    AsyncRpcRecord record, expected;
    std::memcpy(&record, call.record.data(), sizeof record);
    std::memset(&expected, 0, sizeof expected);
    expected.functionId = expected.functionIdAgain = id;
    expected.payload = record.payload;
    expected.length = 3;
    expected.requestContext = reinterpret_cast<void*>(std::uintptr_t{2});
    EXPECT_EQ(std::memcmp(&record, &expected, sizeof record), 0);
    EXPECT_EQ(call.payload, payload);
    EXPECT_EQ(call.handle, Access::handle(*client));

    platform.deliverCallback(ASYNC_RESPONSE_FAILURE_ID, "why", 2);
    EXPECT_EQ(answer, "no why");

    platform.onCall(Operation::RpcSync, [&](const Call& sync) {
        SyncRpcRecord syncRecord;
        std::memcpy(&syncRecord, sync.record.data(), sizeof syncRecord);
        EXPECT_EQ(syncRecord.functionId, id);
        EXPECT_EQ(syncRecord.responseLength, 16384U);
        EXPECT_EQ(syncRecord.status, 1);
    });
    platform.answerSyncWith({"ok", 0, {}});
    EXPECT_EQ(client->makeSyncRequest("", "name", std::string(20000, 'x').data(), 20000).response.size(), 2U);
    EXPECT_EQ(platform.calls(Operation::RpcSync).at(0).payload.size(), 20000U) << "synchronous requests know no limit";
}

TEST_F(Request, TheRecurringCallbackTakesAllAnswersOfItsRequests) {
    const Subject client = connectedClient();
    std::string answers;
    EXPECT_TRUE(client->setRecurringCallback([](bool, const char*, unsigned int) { FAIL() << "was replaced"; }));
    EXPECT_TRUE(client->setRecurringCallback([&](bool success, const char* data, unsigned int length) {
        answers += (success ? "+" : "-") + std::string(data, length);
    }));
    const Line registered = info("Registered persistent recurring callback with id %llu",
                                 "Registered persistent recurring callback with id 1");
    client.expectJournal({registered, registered}, {});
    EXPECT_EQ(makeRecurring(client), RequestStatus::Success);
    EXPECT_EQ(platform.calls(Operation::RpcAsync).at(0).requestContext, 1U);
    platform.deliverCallback(ASYNC_RESPONSE_SUCCESS_ID, "a", 1);
    platform.deliverCallback(ASYNC_RESPONSE_FAILURE_ID, "b", 1);
    EXPECT_EQ(answers, "+a-b");
}

TEST_F(Request, APayloadThatIsNullIsNeverRead) {
    const Subject client = connectedClient();
    const auto callback = [](bool, const char*, unsigned int) {};
    EXPECT_EQ(client->makeAsyncRequest("", "name", nullptr, 0, callback), RequestStatus::Success);
    client.journal->clear();
    EXPECT_EQ(client->makeAsyncRequest("", "name", nullptr, 10, callback), RequestStatus::Failure);
    EXPECT_EQ(client.journal->count("Failed to send async request, status: -22"), 1U);
    EXPECT_EQ(client->makeSyncRequest("", "name", nullptr, 10).status, RequestStatus::Failure);
    EXPECT_EQ(client.journal->count("reason=RPCSyncFailed, status=-22"), 1U);
    EXPECT_EQ(client->makeAsyncRequest("", "name", nullptr, 20000, callback), RequestStatus::Failure);
    EXPECT_EQ(client.journal->count("sendLargePayload FailureReason=\"InvalidInput\" PayloadSize=20000"), 1U);
}

}  // namespace
}  // namespace nipctest
