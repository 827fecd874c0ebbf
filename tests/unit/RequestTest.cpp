#include <algorithm>
#include <cstring>

#include "ConnectorTest.h"
#include "connector/Registry.h"

namespace nipctest {
namespace {

using Request = ConnectorTest;

const Line sending = debug("Sending async request via NIPC");
const Line payloadLine = debug("Sending async request with payload %s", "hi");
const Line syncPayloadLine = debug("Sending sync request with payload %s", "hi");
const Line idLine = debug("Registered callback with id %llu", 2ULL);
const Line deregistering = error("Failed to send async request, deregistering callback");
const Line asyncFailure =
    metric("AsyncRequestFailure RequestName=\"name\" FailureReason=\"SendRequestFailed\" PayloadSize=2");
const Line syncFailure = metric("SyncRequestFailure FailureReason=\"SendRequestFailed\"");

/// A callback that is not to run, and that tells whether anybody keeps it.
struct Unwanted {
    smarthome::AsyncResponseCallback callback() const {
        return [held = token](bool, const char*, unsigned int) { FAIL() << *held; };
    }
    bool isForgotten() const { return token.use_count() == 1; }
    std::shared_ptr<const char*> token = std::make_shared<const char*>("not to be called");
};

RequestStatus makeAsync(const Subject& client) {
    const Unwanted unwanted;
    const auto status = client->makeAsyncRequest("", "name", "hi", 2, unwanted.callback());
    EXPECT_TRUE(unwanted.isForgotten());
    return status;
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
    /// A request that fails: what is logged, measured and counted (as it is measured).
    static void expect(RequestStatus (*request)(const Subject&), const Subject& client, const Lines& lines) {
        client.journal->clear();
        EXPECT_EQ(request(client), RequestStatus::Failure);
        client.expectJournal(lines);
        const auto measured = [&](const std::string& start) {
            return std::count_if(lines.begin(), lines.end(),
                                 [&](const Line& line) { return line.text.find(start) == 0; });
        };
        EXPECT_EQ(Access::asyncRequestFailureCount(*client), measured("AsyncRequestFailure"));
        EXPECT_EQ(Access::syncRequestFailureCount(*client), measured("SyncRequestFailure"));
        EXPECT_EQ(Access::asyncRequestWhileDisconnectedCount(*client),
                  measured("RequestWhileDisconnected RequestType=\"Async\""));
    }
    /// Disconnected, and cannot connect; once initialized it is connecting, and stays so.
    Subject idle() { return make(Role::Client, {"", 65535}); }
    Subject connecting() {
        const Subject client = idle();
        client->initialize();
        return client;
    }
};

TEST_F(RequestFailure, WithoutManager) {
    const auto bare = [this] { return makeBare(Role::Client); };
    expect(makeAsync, bare(),
           {metric("AsyncRequestFailure RequestName=\"name\" FailureReason=\"NoCallbackManager\" PayloadSize=2")});
    expect(makeSync, bare(), {metric("SyncRequestFailure FailureReason=\"NoCallbackManager\"")});
    const Subject client = bare();
    expect(makeRecurring, client, {error("makeAsyncRequestWithRecurringCallback: No callback manager found")});
    EXPECT_FALSE(client->setRecurringCallback(nullptr));
    client.expectJournal({error("setRecurringCallback: No callback manager found")});
}

TEST_F(RequestFailure, WhileDisconnected) {
    const Line inProgress = debug("Connection in progress, request cannot be sent now");
    const Line attempting = debug("Not connected to service, attempting to reconnect on request");
    const Line starting = debug("Starting non-blocking connection to VLRS service");
    const Line invalid = error("Service config is invalid for client NIPCConnector");
    const Line failed = error("Failed to initiate reconnection");
    const auto refused = [](const std::string& type, const std::string& state) {
        return metric("RequestWhileDisconnected RequestType=\"" + type + "\" ConnectionState=\"" + state + "\"");
    };
    expect(makeAsync, connecting(),
           {payloadLine, idLine, refused("Async", "Reconnecting"), inProgress, deregistering, asyncFailure});
    expect(makeSync, connecting(), {syncPayloadLine, refused("Sync", "Reconnecting"), inProgress, syncFailure});
    expect(makeAsync, idle(),
           {payloadLine, idLine, refused("Async", "Disconnected"), attempting, starting, invalid, failed, deregistering,
            asyncFailure});
    expect(makeSync, idle(),
           {syncPayloadLine, refused("Sync", "Disconnected"), attempting, starting, invalid, failed, syncFailure});
}

TEST_F(RequestFailure, OfThePlatformOrTheService) {
    const Line refused = error("Failed to send async request, status: %d", -5);
    platform.failNext(Operation::RpcAsync, -5, 2);
    expect(makeAsync, connectedClient(), {payloadLine, idLine, sending, refused, deregistering, asyncFailure});
    const Subject client = connectedClient();
    expect(makeRecurring, client,
           {error("makeAsyncRequestWithRecurringCallback: No recurring callback registered, call setRecurringCallback "
                  "first")});
    client->setRecurringCallback([](bool, const char*, unsigned int) {});
    expect(makeRecurring, client,
           {debug("Sending async request with recurring callback id %llu", 1ULL), sending, refused,
            error("makeAsyncRequestWithRecurringCallback: Failed to send async request"),
            metric("AsyncRequestFailure RequestName=\"name\" FailureReason=\"SendRecurringRequestFailed\" "
                   "PayloadSize=2")});

    platform.answerSyncWith({"lost", -3, {}});
    expect(makeSync, connectedClient(),
           {syncPayloadLine, error("reason=RPCSyncFailed, rpc_params.status=%d", -3), syncFailure});
    platform.failNext(Operation::RpcSync, -5);
    expect(makeSync, connectedClient(), {syncPayloadLine, error("reason=RPCSyncFailed, status=%d", -5), syncFailure});
}

TEST_F(RequestFailure, OfMemoryLeavesNoCallbackBehind) {
    const Subject client = connectedClient();
    const Unwanted unwanted;
    client.journal->onLine(idLine.text, [] { failNew(1); });
    EXPECT_THROW(client->makeAsyncRequest("", "name", "hi", 2, unwanted.callback()), std::bad_alloc);
    EXPECT_TRUE(unwanted.isForgotten());
}

TEST_F(Request, AnswersEndWhereTheBufferEnds) {
    const Subject client = connectedClient();
    const struct {
        SyncAnswer answer;
        std::size_t size;
    } cases[] = {{{"", 0, {}}, 0},
                 {{std::string("a\0b", 3), 0, {}}, 3},
                 {{std::string(16384, 'x'), 0, {}}, 16384},
                 {{"x", 0, 70000}, 16384}};
    for (const auto& c : cases) {
        platform.answerSyncWith(c.answer);
        const auto result = client->makeSyncRequest("", "name", nullptr, 0);
        EXPECT_EQ(result.status, RequestStatus::Success);
        EXPECT_EQ(result.response.size(), c.size);
        const std::string& whole = c.answer.response;
        EXPECT_TRUE(std::equal(whole.begin(), whole.end(), result.response.begin()));
    }
    EXPECT_TRUE(Access::sendSync(*client)) << "nobody need ask for the answer";
}

TEST_F(Request, RecordsAreFilledAsThePlatformExpects) {
    const Subject client = connectedClient();
    const std::uint16_t id = computeFunctionId("name");
    const std::string payload("p\0q", 3);
    EXPECT_EQ(client->makeAsyncRequest("ignored", "name", payload.data(), 3, nullptr), RequestStatus::Success);
    client.expectJournal({debug("Sending async request with payload %s", "p"), idLine, sending});
    const Call call = platform.calls(Operation::RpcAsync).at(0);
    AsyncRpcRecord expected;
    std::memset(&expected, 0, sizeof expected);
    expected.functionId = expected.functionIdAgain = id;
    expected.payload = payload.data();
    expected.length = 3;
    expected.requestContext = reinterpret_cast<void*>(std::uintptr_t{2});
    EXPECT_EQ(std::memcmp(call.record.data(), &expected, sizeof expected), 0);
    EXPECT_EQ(call.handle, Access::state(*client).handle);

    const std::string large(20000, 'x');  // Synchronous requests know no limit.
    client->makeSyncRequest("", "name", large.data(), 20000);
    const Call sync = platform.calls(Operation::RpcSync).at(0);
    SyncRpcRecord syncRecord;
    std::memcpy(&syncRecord, sync.record.data(), sizeof syncRecord);
    EXPECT_EQ(syncRecord.functionId, id);
    EXPECT_EQ(syncRecord.responseLength, 16384U);
    EXPECT_EQ(syncRecord.status, 1);
    EXPECT_TRUE(sync.payload == large);
}

TEST_F(Request, TheRecurringCallbackTakesAllAnswersOfItsRequests) {
    const Subject client = connectedClient();
    const Unwanted replaced;
    std::string answers;
    EXPECT_TRUE(client->setRecurringCallback(replaced.callback()));
    EXPECT_TRUE(client->setRecurringCallback([&](bool success, const char* data, unsigned int length) {
        answers += (success ? "+" : "-") + std::string(data, length);
    }));
    const Line registered = info("Registered persistent recurring callback with id %llu", 1ULL);
    client.expectJournal({registered, registered});
    EXPECT_EQ(makeRecurring(client), RequestStatus::Success);
    EXPECT_EQ(platform.calls(Operation::RpcAsync).at(0).requestContext, 1U);
    platform.deliverCallback(ASYNC_RESPONSE_SUCCESS_ID, "a", 1);
    platform.deliverCallback(ASYNC_RESPONSE_FAILURE_ID, "b", 1);
    EXPECT_EQ(answers, "+a-b");
}

TEST_F(Request, ACallbackIdTravelsAsWideAsAPointerAndInAShareInItsLowHalf) {
    constexpr std::uint64_t wideId = 0x100000005U;
    constexpr bool narrow = sizeof(void*) == 4;
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
