#include <cstring>
#include <future>

#include "ConnectorTest.h"

namespace nipctest {
namespace {

using LargePayload = ConnectorTest;
const std::string large(20000, 'x');
const auto noCallback = [](bool, const char*, unsigned int) {};

int processFd(nexNipc_parameter_t* parameter) {
    return Access::processFd(*static_cast<NIPCConnector*>(parameter->userContext), parameter) ? 1 : 0;
}

TEST_F(LargePayload, GoesThroughSharedMemoryFromSixteenKilobytesToFiveMegabytes) {
    const Subject client = connectedClient();
    const Subject server = startedServer();
    clientConnects(5);
    const struct {
        unsigned int length;
        bool accepted;
        std::size_t inlineCalls, regions;
    } cases[] = {{16383, true, 1, 0}, {16384, true, 0, 1}, {5242880, true, 0, 1}, {5242881, false, 0, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.length);
        platform.forgetCalls();
        std::string payload(c.length, 'x');
        payload[1] = '\0';
        payload.back() = 'y';
        const auto result = client->makeAsyncRequest("", "name", payload.data(), c.length, noCallback);
        EXPECT_EQ(result, c.accepted ? RequestStatus::Success : RequestStatus::Failure);
        EXPECT_TRUE(server->publishEvent("event", payload));
        EXPECT_EQ(platform.calls(Operation::RpcAsync).size(), c.inlineCalls);
        EXPECT_EQ(platform.calls(Operation::Callback).size(), c.inlineCalls);
        EXPECT_EQ(platform.calls(Operation::AshmemCreateRegion).size(), 2 * c.regions);
        for (const auto operation : {Operation::ClientShareFd, Operation::ServiceShareFd}) {
            const auto calls = platform.calls(operation);
            ASSERT_EQ(calls.size(), c.regions);
            if (calls.empty()) continue;
            const bool fromClient = operation == Operation::ClientShareFd;
            EXPECT_TRUE(calls[0].payload == payload);
            EXPECT_EQ(calls[0].functionId, computeFunctionId(fromClient ? "name" : "event"));
            EXPECT_EQ(calls[0].clientId, fromClient ? 0 : 5);
            EXPECT_EQ(calls[0].requestContext != 0, fromClient);
        }
    }
    EXPECT_EQ(platform.calls(Operation::AshmemCreateRegion).size(), 0U);
    EXPECT_EQ(sharedMemoryInUse(), 0U);
}

TEST_F(LargePayload, SendingFailuresSayWhyAndLeaveNothingBehind) {
    const Subject client = connectedClient();
    const auto expect = [&](const char* line, const char* reason, const char* data = large.data(),
                            unsigned int length = 20000) {
        SCOPED_TRACE(reason);
        EXPECT_FALSE(Access::sendLargePayload(*client, data, length));
        client.expectJournal({{'E', line, line}}, {std::string("sendLargePayload FailureReason=\"") + reason +
                                                   "\" PayloadSize=" + std::to_string(length)});
        EXPECT_EQ(sharedMemoryInUse(), 0U);
    };
    expect("invalid input", "InvalidInput", nullptr, 16384);
    const char* const noRegion = "Failed to create shared memory resource";
    expect(noRegion, "SharedMemoryCreationFailed", large.data(), 0);
    platform.failNext(Operation::AshmemCreateRegion, -12);
    expect(noRegion, "SharedMemoryCreationFailed");
    platform.regionsCanBeMapped = false;
    expect(noRegion, "SharedMemoryCreationFailed");
    platform.regionsCanBeMapped = true;
    failNothrowNew(1);
    expect("failed to create a share fd msg", "SharedFdMsgCreationFailed");
    failNothrowNew(2);
    expect("failed to alloc metadata", "MetadataAllocationFailed");
    failNothrowNew(3);
    expect("failed to alloc a shared fd list", "FdsAllocationFailed");

    const auto start = time.now();
    platform.acknowledgesShares = false;
    platform.failNext(Operation::ClientShareFd, -32);
    expect("Failed to send file descriptor request", "SendingFdViaNipcFailed");
    EXPECT_TRUE(Access::fdAckReceived(*client)) << "nobody is to wait for what was not sent";
    EXPECT_EQ(time.now(), start);
    time.waitsExpireAtOnce = true;
    expect("Timed out waiting for FD processing ACK from receiver.", "AckTimeout");
    EXPECT_EQ(time.now() - start, 3'000'000'000U);

    platform.failNext(Operation::ClientShareFd, -32);
    client->makeAsyncRequest("", "name", large.data(), 20000, noCallback);
    const auto lines = client.journal->lines();
    ASSERT_EQ(lines.size(), 6U);
    EXPECT_EQ(lines[2], info("Payload length is greater than the max payload size, sending large payload"));
    EXPECT_EQ(lines[4], error("Failed to send large payload"));

    const Subject server = startedServer();
    clientConnects(5);
    server.journal->clear();
    platform.failNext(Operation::ServiceShareFd, -32);
    EXPECT_TRUE(server->publishEvent("event", large));
    const auto serverLines = server.journal->lines();
    ASSERT_EQ(serverLines.size(), 5U);
    EXPECT_EQ(serverLines[2], info("Payload size is greater than the max payload size, sending large payload"));
    EXPECT_EQ(serverLines[4], error("Failed to send large payload"));
}

TEST_F(LargePayload, TransfersOfOneConnectorDoNotOverlap) {
    const Subject client = connectedClient();
    platform.acknowledgesShares = false;
    const auto send = [&] { return Access::sendLargePayload(*client, large.data(), 20000); };
    auto first = std::async(std::launch::async, send);
    ASSERT_TRUE(platform.waitForCalls(Operation::ClientShareFd, 1));
    auto second = std::async(std::launch::async, send);
    EXPECT_FALSE(platform.waitForCalls(Operation::ClientShareFd, 2, std::chrono::milliseconds(200)));
    platform.deliverAcknowledgement();
    EXPECT_TRUE(first.get());
    ASSERT_TRUE(platform.waitForCalls(Operation::ClientShareFd, 2));
    platform.deliverAcknowledgement();
    EXPECT_TRUE(second.get());
}

TEST_F(LargePayload, ArrivesAcknowledgedAndWhole) {
    std::string payload = large;
    payload[7] = '\0';
    std::string seen;
    const Subject client = connectedClient();
    client->makeAsyncRequest("", "name", "", 0, [&](bool success, const char* data, unsigned int length) {
        EXPECT_TRUE(success);
        EXPECT_EQ(sharedMemoryInUse(), 0U);
        seen.assign(data, length);
    });
    client.journal->clear();
    platform.deliverShare({ASYNC_RESPONSE_SUCCESS_ID, payload, 2, 0, {}, {}, false, false, nullptr});
    EXPECT_TRUE(seen == payload);
    client.expectJournal(
        {debug("Handle callback"), debug("Processing fd"),
         debug("Received data: %s, length: %zu", "xxxxxxx", std::size_t{20000}),
         debug("Sending async ACK back to server"), debug("Sending async request via NIPC"),
         debug("Handling function callback"), debug("Executed callback with id %llu, functionId %d", 2ULL, 1002)},
        {});
    const Call ack = platform.calls(Operation::RpcAsync).at(1);
    EXPECT_EQ(ack.functionId, CLIENT_FD_PROCESSING_COMPLETED_ID);
    EXPECT_TRUE(ack.nullPayload && ack.length == 0 && ack.requestContext == 0);

    const Subject server = startedServer();
    server->registerAsyncRequestHandler("put", [&](const char* data, unsigned int length, auto, const std::string& id) {
        seen.assign(data, length);
        EXPECT_EQ(id, "5_4294967295");
    });
    server.journal->clear();
    seen.clear();
    EXPECT_EQ(
        platform.deliverShare({computeFunctionId("put"), payload, 0xFFFFFFFF, 5, {}, {}, false, false, nullptr}).status,
        0);
    EXPECT_TRUE(seen == payload);
    server.expectJournal({debug("received async function"), debug("received share fd function"), debug("Processing fd"),
                          debug("Received data: %s, length: %zu", "xxxxxxx", std::size_t{20000}),
                          debug("Sending ACK event to clientId %d", 5),
                          debug("Sending %s to clientId %d with payloadSize %zu", "event", 5, std::size_t{0}),
                          debug("Handling async request"), debug("Handling async request with request name %s", "put")},
                         {});
    EXPECT_EQ(platform.calls(Operation::Callback).at(0).functionId, SERVER_FD_PROCESSING_COMPLETED_ID);
    platform.deliverAcknowledgement(5);
    server.expectJournal({debug("received async function"), debug("received client fd processing completed")}, {});
}

TEST_F(LargePayload, ReceivingFailuresSayWhy) {
    const Subject client = connectedClient();
    const Subject server = startedServer();
    const Subject bare = makeBare(Role::Server);
    SharedMessage nullDescriptors, nullMetadata, empty, bad, shortRegion, whole;
    nullDescriptors.nullDescriptors = nullMetadata.nullMetadata = true;
    nullDescriptors.descriptor = nullMetadata.descriptor = empty.descriptor = bad.descriptor = -1;
    empty.claimedLength = 0;
    bad.claimedLength = 5;
    shortRegion.payload = "half";
    shortRegion.claimedLength = 20000;
    whole.payload = "whole";
    whole.requestContext = 9;
    whole.peerId = 5;
    const auto share = [this](SharedMessage message, const Subject& subject) {
        message.receiver = processFd;
        message.userContext = subject.connector.get();
        return platform.deliverShare(message).result == 1;
    };
    const auto expect = [](const char* reason, const Subject& subject, const Line& line, int size,
                           const std::function<bool()>& receive) {
        SCOPED_TRACE(reason);
        subject.journal->clear();
        EXPECT_FALSE(receive());
        EXPECT_EQ(subject.journal->lines().back(), line);
        EXPECT_EQ(subject.journal->metrics().back(),
                  std::string("processFd FailureReason=\"") + reason + "\" PayloadSize=" + std::to_string(size));
        EXPECT_EQ(sharedMemoryInUse(), 0U);
    };
    const auto expectShared = [&](const char* reason, const Subject& subject, const Line& line, int size,
                                  const SharedMessage& message) {
        expect(reason, subject, line, size, [&] { return share(message, subject); });
    };
    expect("InvalidInput", client, error("invalid input"), 0, [&] { return Access::processFd(*client, nullptr); });
    nexNipc_parameter_t blank{};
    expect("InvalidTaskBuffer", client, error("invalid task buffer"), 0,
           [&] { return Access::processFd(*client, &blank); });
    expectShared("InvalidFileDescriptor", client, error("invalid file descriptor"), 0, nullDescriptors);
    expectShared("InvalidMetadata", client, error("invalid metadata"), 0, nullMetadata);
    expectShared("InvalidDataLength", client, error("invalid data length"), 0, empty);
    const Line unreadable = error("failed reading from file descriptor");
    expectShared("FailedReadingFromFd", client, unreadable, 5, bad);
    expectShared("FailedReadingFromFd", client, unreadable, 20000, shortRegion);
    platform.failNext(Operation::RpcAsync, -5);
    expectShared("FailedSendingAckToServer", client, error("Failed to send async request to server"), 5, whole);
    platform.failNext(Operation::Callback, -5);
    expectShared("FailedSendingAckToClient", server, error("Failed to send event to clientId %d", 5), 5, whole);
    expectShared("FailedHandlingFunctionCallback", client, error("Failed to handle function callback"), 5, whole);
    expectShared("NoCallbackManagerFound", bare, error("No callback manager found for this connector"), 5, whole);
    expectShared("FailedHandlingAsyncRequest", server, error("Failed to handle async request"), 5, whole);

    server.journal->clear();
    EXPECT_EQ(platform.deliverShare(empty).status, -1);
    server.expectJournal({debug("received async function"), debug("received share fd function"), debug("Processing fd"),
                          error("invalid data length"), error("Failed to process fd")},
                         {"processFd FailureReason=\"InvalidDataLength\" PayloadSize=0"});
}

}  // namespace
}  // namespace nipctest
