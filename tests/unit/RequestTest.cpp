#include <algorithm>
#include <cstring>

#include "ConnectorTest.h"

namespace nipctest {
namespace {

using Request = ConnectorTest;
using Lines = std::vector<Line>;
using Metrics = std::vector<std::string>;

const Line sending = debug("Sending async request via NIPC");
const Line payloadLine = debug("Sending async request with payload %s", "hi");
const Line syncPayloadLine = debug("Sending sync request with payload %s", "hi");
const Line idLine = debug("Registered callback with id %llu", 2ULL);
const Line deregistering = error("Failed to send async request, deregistering callback");
const std::string asyncFailure =
    "AsyncRequestFailure RequestName=\"name\" FailureReason=\"SendRequestFailed\" PayloadSize=2";
const std::string syncFailure = "SyncRequestFailure FailureReason=\"SendRequestFailed\"";

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
class RequestFailure : public ConnectorTest {
protected:
    /// A request that fails: what is logged, measured, counted (as it is measured) and run (nothing).
    static void expect(RequestStatus (*request)(const Subject&), const Subject& client, const Lines& lines,
                       const Metrics& metrics) {
        client.journal->clear();
        EXPECT_EQ(request(client), RequestStatus::Failure);
        client.expectJournal(lines, metrics);
        const auto measured = [&](const std::string& start) {
            return std::count_if(metrics.begin(), metrics.end(), [&](const std::string& metric) {
                return metric.compare(0, start.size(), start) == 0;
            });
        };
        EXPECT_EQ(Access::asyncRequestFailureCount(*client), measured("AsyncRequestFailure"));
        EXPECT_EQ(Access::syncRequestFailureCount(*client), measured("SyncRequestFailure"));
        EXPECT_EQ(Access::asyncRequestWhileDisconnectedCount(*client),
                  measured("RequestWhileDisconnected RequestType=\"Async\""));
        FakePlatform::instance().deliverCallback(ASYNC_RESPONSE_SUCCESS_ID, "", 2);
    }
    /// One that is connecting, and stays so.
    Subject connectingClient() {
        const Subject client = make(Role::Client, {"", 65535});
        client->initialize();
        return client;
    }
};

TEST_F(RequestFailure, WithoutManager) {
    const auto bare = [this] { return makeBare(Role::Client); };
    expect(makeAsync, bare(), {},
           {"AsyncRequestFailure RequestName=\"name\" FailureReason=\"NoCallbackManager\" PayloadSize=2"});
    expect(makeSync, bare(), {}, {"SyncRequestFailure FailureReason=\"NoCallbackManager\""});
    const Subject client = bare();
    expect(makeRecurring, client, {error("makeAsyncRequestWithRecurringCallback: No callback manager found")}, {});
    EXPECT_FALSE(client->setRecurringCallback(nullptr));
    client.expectJournal({error("setRecurringCallback: No callback manager found")}, {});
}

TEST_F(RequestFailure, WhileDisconnected) {
    const Line inProgress = debug("Connection in progress, request cannot be sent now");
    expect(makeAsync, connectingClient(), {payloadLine, idLine, inProgress, deregistering},
           {"RequestWhileDisconnected RequestType=\"Async\" ConnectionState=\"Reconnecting\"", asyncFailure});
    expect(makeSync, connectingClient(), {syncPayloadLine, inProgress},
           {"RequestWhileDisconnected RequestType=\"Sync\" ConnectionState=\"Reconnecting\"", syncFailure});
    expect(makeAsync, make(Role::Client, {"", 65535}),
           {payloadLine, idLine, debug("Not connected to service, attempting to reconnect on request"),
            debug("Starting non-blocking connection to VLRS service"),
            error("Service config is invalid for client NIPCConnector"), error("Failed to initiate reconnection"),
            deregistering},
           {"RequestWhileDisconnected RequestType=\"Async\" ConnectionState=\"Disconnected\"", asyncFailure});
}

TEST_F(RequestFailure, OfThePlatformOrTheService) {
    const Line refused = error("Failed to send async request, status: %d", -5);
    platform.failAlways(Operation::RpcAsync, -5);
    expect(makeAsync, connectedClient(), {payloadLine, idLine, sending, refused, deregistering}, {asyncFailure});
    const Subject client = connectedClient();
    expect(makeRecurring, client,
           {error("makeAsyncRequestWithRecurringCallback: No recurring callback registered, call setRecurringCallback "
                  "first")},
           {});
    client->setRecurringCallback([](bool, const char*, unsigned int) {});
    expect(makeRecurring, client,
           {debug("Sending async request with recurring callback id %llu", 1ULL), sending, refused,
            error("makeAsyncRequestWithRecurringCallback: Failed to send async request")},
           {"AsyncRequestFailure RequestName=\"name\" FailureReason=\"SendRecurringRequestFailed\" PayloadSize=2"});

    platform.answerSyncWith({"lost", -3, {}});
    expect(makeSync, connectedClient(), {syncPayloadLine, error("reason=RPCSyncFailed, rpc_params.status=%d", -3)},
           {syncFailure});
    platform.failNext(Operation::RpcSync, -5);
    expect(makeSync, connectedClient(), {syncPayloadLine, error("reason=RPCSyncFailed, status=%d", -5)}, {syncFailure});
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
    client.expectJournal({debug("Sending async request with payload %s", "p"), idLine, sending}, {});
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
    const Line registered = info("Registered persistent recurring callback with id %llu", 1ULL);
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
