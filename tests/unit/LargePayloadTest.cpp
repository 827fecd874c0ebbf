#include <fcntl.h>

#include <cstring>
#include <future>

#include "ConnectorTest.h"

namespace nipctest {
namespace {

using LargePayload = ConnectorTest;
const std::string large(20000, 'x');
const Line processing = debug("Processing fd");

Line received(const char* text, std::size_t length) { return debug("Received data: %s, length: %zu", text, length); }
Line sendingEvent(std::size_t size) {
    return debug("Sending %s to clientId %d with payloadSize %zu", "event", 5, size);
}
Line failure(const char* operation, const char* reason, std::size_t size) {
    return metric(std::string(operation) + " FailureReason=\"" + reason + "\" PayloadSize=" + std::to_string(size));
}

TEST_F(LargePayload, GoesThroughSharedMemoryFromSixteenKilobytesToFiveMegabytes) {
    const Subject client = connectedClient();
    const Subject server = startedServer();
    clientConnects(5);
    const struct {
        unsigned int length;
        Operation request, event;
        std::size_t regions;
    } cases[] = {{16383, Operation::RpcAsync, Operation::Callback, 0},
                 {16384, Operation::ClientShareFd, Operation::ServiceShareFd, 2},
                 {5242880, Operation::ClientShareFd, Operation::ServiceShareFd, 2}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.length);
        platform.forgetCalls();
        std::string payload(c.length, 'x');
        payload[1] = '\0';
        payload.back() = 'y';
        EXPECT_EQ(client->makeAsyncRequest("", "name", payload.data(), c.length, nullptr), RequestStatus::Success);
        EXPECT_TRUE(server->publishEvent("event", payload));
        const Call request = platform.calls(c.request).at(0);
        const Call event = platform.calls(c.event).at(0);
        EXPECT_TRUE(request.payload == payload && event.payload == payload);
        EXPECT_EQ(request.functionId, computeFunctionId("name"));
        EXPECT_EQ(event.functionId, computeFunctionId("event"));
        EXPECT_EQ(event.clientId, 5);
        EXPECT_TRUE(request.requestContext != 0 && event.requestContext == 0);
        const auto regions = platform.calls(Operation::AshmemCreateRegion);
        EXPECT_EQ(regions.size(), c.regions);
        for (const Call& region : regions) EXPECT_EQ(region.payload, "nipc_connector_payload");
    }
    EXPECT_EQ(sharedMemoryInUse(), 0U);
}

TEST_F(LargePayload, SendingFailuresSayWhyAndLeaveNothingBehind) {
    const Subject client = connectedClient();
    const auto expect = [&](const char* line, const char* reason, const char* data = large.data(),
                            unsigned int length = 20000) {
        SCOPED_TRACE(reason);
        EXPECT_FALSE(Access::sendLargePayload(*client, data, length));
        client.expectJournal({{'E', line, line}, failure("sendLargePayload", reason, length)});
        EXPECT_EQ(sharedMemoryInUse(), 0U);
    };
    const char* const noRegion = "Failed to create shared memory resource";
    const std::string tooLarge(5242881, 'x');
    expect("invalid input", "InvalidInput", nullptr, 16384);
    expect(noRegion, "SharedMemoryCreationFailed", large.data(), 0);
    expect(noRegion, "SharedMemoryCreationFailed", tooLarge.data(), 5242881);
    EXPECT_TRUE(platform.calls(Operation::AshmemCreateRegion).empty());
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
}

TEST_F(LargePayload, AFailureReachesTheCallerOfTheRequestAndTheLogOfTheEvent) {
    const Line failed = error("Failed to send large payload");
    const Line noDescriptor = error("Failed to send file descriptor request");
    const Line measured = failure("sendLargePayload", "SendingFdViaNipcFailed", 20000);
    const Subject client = connectedClient();
    platform.failNext(Operation::ClientShareFd, -32);
    EXPECT_EQ(client->makeAsyncRequest("", "name", large.data(), 20000, nullptr), RequestStatus::Failure);
    client.expectJournal(
        {debug("Sending async request with payload %s", large.c_str()), debug("Registered callback with id %llu", 2ULL),
         info("Payload length is greater than the max payload size, sending large payload"), noDescriptor, measured,
         failed, error("Failed to send async request, deregistering callback"),
         metric("AsyncRequestFailure RequestName=\"name\" FailureReason=\"SendRequestFailed\" PayloadSize=20000")});

    const Subject server = startedServer();
    clientConnects(5);
    server.journal->clear();
    platform.failNext(Operation::ServiceShareFd, -32);
    EXPECT_TRUE(server->publishEvent("event", large));
    server.expectJournal(
        {debug("Publishing event %s with data size %zu to %zu clients", "event", large.size(), std::size_t{1}),
         sendingEvent(20000), info("Payload size is greater than the max payload size, sending large payload"),
         noDescriptor, measured, failed});
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
    platform.deliverShare({ASYNC_RESPONSE_SUCCESS_ID, payload, 2});
    EXPECT_TRUE(seen == payload);
    client.expectJournal({debug("Handle callback"), processing, received("xxxxxxx", 20000),
                          debug("Sending async ACK back to server"), debug("Sending async request via NIPC"),
                          debug("Handling function callback"),
                          debug("Executed callback with id %llu, functionId %d", 2ULL, 1002)});
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
    SharedMessage shared{computeFunctionId("put"), payload, 0xFFFFFFFF};
    shared.message.peerId = 5;
    EXPECT_EQ(platform.deliverShare(shared).status, 0);
    EXPECT_TRUE(seen == payload);
    platform.deliverAcknowledgement(5);
    const Line async = debug("received async function");
    server.expectJournal({async, debug("received share fd function"), processing, received("xxxxxxx", 20000),
                          debug("Sending ACK event to clientId %d", 5), sendingEvent(0),
                          debug("Handling async request"), debug("Handling async request with request name %s", "put"),
                          async, debug("received client fd processing completed")});
    EXPECT_EQ(platform.calls(Operation::Callback).at(0).functionId, SERVER_FD_PROCESSING_COMPLETED_ID);
}

TEST_F(LargePayload, ReceivingFailuresSayWhy) {
    const Subject client = connectedClient();
    const auto clientHandle = platform.endpoint().handle;
    const Subject server = startedServer();
    const auto serverHandle = platform.endpoint().handle;
    const auto expect = [&](Role role, SharedMessage shared, const char* reason, unsigned int size, Lines last) {
        SCOPED_TRACE(reason);
        const bool toClient = role == Role::Client;
        shared.message.peerId = 5;
        shared.message.handle = toClient ? clientHandle : serverHandle;
        EXPECT_EQ(platform.deliverShare(shared).status, toClient ? 0 : -1);
        Lines lines = {debug("Handle callback"), processing};
        if (!toClient) lines = {debug("received async function"), debug("received share fd function"), processing};
        last.push_back(failure("processFd", reason, size));
        if (!toClient) last.push_back(error("Failed to process fd"));
        lines.insert(lines.end(), last.begin(), last.end());
        (toClient ? client : server).expectJournal(lines);
        EXPECT_EQ(sharedMemoryInUse(), 0U);
    };
    const Line unreadable = error("failed reading from file descriptor");
    SharedMessage shared;
    shared.descriptor = -1;
    shared.nullDescriptors = true;
    expect(Role::Client, shared, "InvalidFileDescriptor", 0, {error("invalid file descriptor")});
    shared.nullDescriptors = false;
    shared.nullMetadata = true;
    expect(Role::Client, shared, "InvalidMetadata", 0, {error("invalid metadata")});
    shared.nullMetadata = false;
    expect(Role::Server, shared, "InvalidDataLength", 0, {error("invalid data length")});
    shared.claimedLength = 5;
    expect(Role::Client, shared, "FailedReadingFromFd", 5, {unreadable});
    shared.descriptor = open("/dev/null", O_RDWR | O_CLOEXEC);
    expect(Role::Client, shared, "FailedReadingFromFd", 5, {unreadable});
    EXPECT_EQ(fcntl(*shared.descriptor, F_GETFD), -1) << "closed though it could not be mapped";
    shared = {0, "half", 0};
    shared.claimedLength = 20000;
    expect(Role::Client, shared, "FailedReadingFromFd", 20000, {unreadable});

    const SharedMessage whole{2000, "whole", 9};
    const Line arrived = received("whole", 5);
    const Line toServer = debug("Sending async ACK back to server");
    const Line sending = debug("Sending async request via NIPC");
    const Line toClient = debug("Sending ACK event to clientId %d", 5);
    platform.failNext(Operation::RpcAsync, -5);
    expect(Role::Client, whole, "FailedSendingAckToServer", 5,
           {arrived, toServer, sending, error("Failed to send async request, status: %d", -5),
            error("Failed to send async request to server")});
    platform.failNext(Operation::Callback, -5);
    expect(Role::Server, whole, "FailedSendingAckToClient", 5,
           {arrived, toClient, sendingEvent(0), error("Failed to send %s to clientId %d, status: %d", "event", 5, -5),
            metric("EventSendFailure FailureReason=\"NipcCallbackFailedWithStatus-5\" RequestType=\"Event\" "
                   "PayloadSize=0"),
            error("Failed to send event to clientId %d", 5)});
    expect(Role::Client, whole, "FailedHandlingFunctionCallback", 5,
           {arrived, toServer, sending, debug("Handling function callback"),
            error("Callback not found with id %llu, functionId %d", 9ULL, 2000),
            error("Failed to handle function callback")});
    expect(Role::Server, whole, "FailedHandlingAsyncRequest", 5,
           {arrived, toClient, sendingEvent(0), debug("Handling async request"),
            debug("Handling async request with request name %s", ""),
            error("Failed to find async handler for request name %s", ""), error("Failed to handle async request")});

    EXPECT_FALSE(Access::processFd(*client, nullptr));
    nexNipc_parameter_t blank{};
    EXPECT_FALSE(Access::processFd(*client, &blank));
    client.expectJournal({processing, error("invalid input"), failure("processFd", "InvalidInput", 0), processing,
                          error("invalid task buffer"), failure("processFd", "InvalidTaskBuffer", 0)});

    const Subject bare = makeBare(Role::Server);
    shared = whole;
    shared.message.peerId = 5;
    shared.message.userContext = bare.connector.get();
    shared.message.listener = [](nexNipc_parameter_t* parameter) {
        return Access::processFd(*static_cast<NIPCConnector*>(parameter->userContext), parameter) ? 1 : 0;
    };
    EXPECT_EQ(platform.deliverShare(shared).result, 0);
    bare.expectJournal({processing, arrived, toClient, sendingEvent(0), debug("Handling async request"),
                        error("No callback manager found for this connector"),
                        failure("processFd", "NoCallbackManagerFound", 5)});
}

}  // namespace
}  // namespace nipctest
