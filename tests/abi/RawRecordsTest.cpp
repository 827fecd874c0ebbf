// The connector against a platform library that knows the records by byte offsets alone (RawPlatform.c).
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "RawPlatform.h"
#include "nipcconnector/NIPCConnector.h"
#include "nipcconnector/testing/Journal.h"

using nipcconnector::NIPCConnector;
using nipcconnector::testing::Journal;

namespace {

constexpr std::uint16_t kUuid = 0x1234;
constexpr std::uint16_t kPeer = 77;
constexpr std::uint16_t kEvent = 58857;    // "temperatureChanged"
constexpr std::uint16_t kRequest = 49449;  // "getTemperature"
enum Type : std::uint32_t { Sync, Async, Callback, Event };

/// A value at an offset; `any` for an address that only has to be there.
struct Field {
    unsigned offset;
    unsigned width;
    std::uint32_t value;
    bool any = false;
};

std::uint32_t at(RawRecord record, unsigned offset, unsigned width = 4) {
    std::uint32_t value = 0;
    std::memcpy(&value, raw_captured(record)->bytes + offset, width);
    return value;
}

/// Every field holds its value and every byte outside of them (up to `size`) is zero.
void expectRecord(RawRecord record, unsigned size, const std::vector<Field>& fields) {
    std::vector<unsigned char> rest(raw_captured(record)->bytes, raw_captured(record)->bytes + size);
    for (const Field& field : fields) {
        if (field.any)
            EXPECT_NE(at(record, field.offset, field.width), 0U) << "offset " << field.offset;
        else
            EXPECT_EQ(at(record, field.offset, field.width), field.value) << "offset " << field.offset;
        std::fill_n(rest.begin() + static_cast<long>(field.offset), field.width, static_cast<unsigned char>(0));
    }
    EXPECT_EQ(rest, std::vector<unsigned char>(size)) << "a byte without a name is not zero";
}

std::string payloadOf(RawRecord record) { return {raw_captured(record)->payload, raw_captured(record)->payloadSize}; }

/// What a service sent; the bytes between function and payload are nobody's.
void expectCallback(std::uint16_t function, const std::string& payload, std::uint32_t context) {
    EXPECT_EQ(raw_captured(RAW_CALLBACK)->handle, 41);
    EXPECT_EQ(raw_captured(RAW_CALLBACK)->client, kPeer);
    EXPECT_EQ(at(RAW_CALLBACK, 0), 0U);
    EXPECT_EQ(at(RAW_CALLBACK, 4, 2), function);
    EXPECT_EQ(at(RAW_CALLBACK, 16), payload.size());
    EXPECT_EQ(at(RAW_CALLBACK, 20), context);
    EXPECT_EQ(payloadOf(RAW_CALLBACK), payload);
}

std::uint32_t addressOf(const void* object) {
    return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(object));
}

/// Answers the status that the listener leaves.
int deliver(bool toService, std::uint32_t type, std::uint16_t function, std::uint32_t context, std::string data) {
    auto length = static_cast<std::uint32_t>(data.size());
    std::int32_t status = 99;
    const RawMessage message{toService, kPeer, type, function, 0, &length, &status, data.data(), context};
    EXPECT_EQ(raw_deliver(&message), 0);
    return status;
}

int deliverEvent(bool toService, std::uint16_t event, std::uint16_t peer, std::int32_t status = 0) {
    std::uint32_t length = 0;
    const RawMessage message{toService, peer, Event, 0, event, &length, &status, nullptr, 0};
    return raw_deliver(&message);
}

smarthome::AsyncResponseCallback into(std::string& reply) {
    return [&reply](bool success, const char* data, unsigned int length) {
        reply += (success ? "+" : "-") + std::string(data, length);
    };
}

class RawRecords : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        server = open(false, serverLog);
        client = open(true, clientLog);
        ASSERT_TRUE(clientLog->waitFor("Successfully connected to server"));
        server->registerSyncRequestHandler("getTemperature", [](const char* data, unsigned int length) {
            return std::vector<char>(data, data + length / 2);
        });
        server->registerAsyncRequestHandler("getTemperature", [](const char* data, unsigned int length, auto respond,
                                                                 const std::string&) { respond(true, data, length); });
    }

    static std::shared_ptr<NIPCConnector> open(bool isClient, const std::shared_ptr<Journal>& log) {
        auto connector = NIPCConnector::getInstance(isClient, "raw", {"raw", kUuid},
                                                    nipcconnector::testing::recordingLogger(log), nullptr);
        connector->initialize();
        return connector;
    }

    static inline std::shared_ptr<NIPCConnector> server, client;
    static inline const auto serverLog = std::make_shared<Journal>("raw");
    static inline const auto clientLog = std::make_shared<Journal>("raw");
};

TEST_F(RawRecords, AServiceStartsAndAClientConnects) {
    expectRecord(RAW_START, 1184,
                 {{0, 2, kUuid},
                  {8, 4, 0, true},
                  {12, 4, 16384},
                  {16, 2, 10},
                  {20, 4, 1},
                  {32, 4, 1},
                  {36, 4, addressOf(server.get())}});
    expectRecord(RAW_CONNECT, 1164,
                 {{0, 2, kUuid}, {4, 4, 0, true}, {8, 4, 16384}, {12, 4, 1}, {16, 4, addressOf(client.get())}});
}

TEST_F(RawRecords, AnAsynchronousRequestIsAnsweredByItsContext) {
    for (const bool good : {true, false}) {
        std::string reply;
        ASSERT_EQ(client->makeAsyncRequest("", "abc", "hello", 5, into(reply)), smarthome::RequestStatus::Success);
        expectRecord(RAW_ASYNC, 28, {{0, 2, 36949}, {4, 4, 0, true}, {8, 4, 5}, {16, 2, 36949}, {24, 4, 0, true}});
        EXPECT_EQ(raw_captured(RAW_ASYNC)->handle, 42);
        EXPECT_EQ(payloadOf(RAW_ASYNC), "hello");

        deliver(false, Callback, good ? 1002 : 1003, at(RAW_ASYNC, 24), "answer");
        EXPECT_EQ(reply, good ? "+answer" : "-answer");
    }
}

TEST_F(RawRecords, ASynchronousRequestIsAnsweredInPlace) {
    raw_answerWith("21.5");
    const smarthome::SyncRequestResult result = client->makeSyncRequest("", "getTemperature", "celsius", 7);
    expectRecord(RAW_SYNC, 24,
                 {{0, 2, kRequest}, {4, 4, 0, true}, {8, 4, 7}, {12, 4, 0, true}, {16, 4, 16384}, {20, 4, 1}});
    EXPECT_EQ(payloadOf(RAW_SYNC), "celsius");
    EXPECT_EQ(result.status, smarthome::RequestStatus::Success);
    EXPECT_EQ(std::string(result.response.begin(), result.response.end()), "21.5");
}

TEST_F(RawRecords, AServiceAnswersASynchronousRequestInItsBuffer) {
    std::vector<char> buffer(16384, 'x');
    std::memcpy(buffer.data(), "21.5|???", 8);
    std::uint32_t length = 8;
    std::int32_t status = 99;
    const RawMessage known{1, kPeer, Sync, kRequest, 0, &length, &status, buffer.data(), 0};
    EXPECT_EQ(raw_deliver(&known), 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(std::string(buffer.data(), length), "21.5");
}

TEST_F(RawRecords, AServiceEchoesTheContextOfAnAsynchronousRequest) {
    EXPECT_EQ(deliver(true, Async, kRequest, 0xFEDCBA98U, "set"), 0);
    expectCallback(1002, "set", 0xFEDCBA98U);
}

TEST_F(RawRecords, EventsGoToClientsWhileTheyAreConnected) {
    EXPECT_EQ(deliverEvent(true, 65531, kPeer), 0);
    EXPECT_TRUE(server->publishEvent("temperatureChanged", std::string("22")));
    expectCallback(kEvent, "22", 0);

    EXPECT_TRUE(server->publishEvent("temperatureChanged", std::string(20000, 'e')));
    expectRecord(RAW_SHARE, 16, {{0, 4, 1}, {4, 4, 10}, {8, 4, 0, true}, {12, 4, 0, true}});
    expectRecord(RAW_METADATA, 10, {{0, 4, 20000}, {4, 2, kEvent}});
    EXPECT_EQ(payloadOf(RAW_SHARE), std::string(20000, 'e'));

    EXPECT_EQ(deliverEvent(true, 65532, kPeer), 0);
    const unsigned before = raw_captured(RAW_CALLBACK)->count;
    EXPECT_TRUE(server->publishEvent("temperatureChanged"));
    EXPECT_EQ(raw_captured(RAW_CALLBACK)->count, before);
}

TEST_F(RawRecords, LargeRequestsAndAnswersTravelInSharedRegions) {
    std::string reply;
    const std::string large(16384, 'L');
    ASSERT_EQ(client->makeAsyncRequest("", "abc", large.data(), 16384, into(reply)), smarthome::RequestStatus::Success);
    expectRecord(RAW_SHARE, 16, {{0, 4, 1}, {4, 4, 10}, {8, 4, 0, true}, {12, 4, 0, true}});
    expectRecord(RAW_METADATA, 10, {{0, 4, 16384}, {4, 2, 36949}, {6, 4, 0, true}});
    EXPECT_EQ(payloadOf(RAW_SHARE), large);

    std::int32_t status = 0;
    EXPECT_EQ(raw_deliverShared(0, 0, 1002, at(RAW_METADATA, 6), "a shared answer", &status), 0);
    EXPECT_EQ(reply, "+a shared answer");
    expectRecord(RAW_ASYNC, 28, {{0, 2, 1000}, {16, 2, 1000}});

    EXPECT_EQ(raw_deliverShared(1, kPeer, kRequest, 0x80000001U, "a shared request", &status), 0);
    EXPECT_EQ(status, 0);
    expectCallback(1002, "a shared request", 0x80000001U);
}

TEST_F(RawRecords, AClientFollowsTheStateOfItsService) {
    const struct {
        std::uint16_t event, peer;
        std::int32_t status;
        std::vector<const char*> lines;
    } cases[] = {{65533, 0x4321, 0, {"SERVER_UP event from UUID: 17185"}},
                 {65520, 0, 0, {"NEX_NIPC_EVENT_CONNECTION_DONE with status: 0"}},
                 {65534, 0, 0, {"Disconnected from VLRS service", "Successfully connected to server"}},
                 {65520, 0, -111, {"Failed to connect to server", "Successfully connected to server"}}};
    for (const auto& c : cases) {
        clientLog->clear();
        EXPECT_EQ(deliverEvent(false, c.event, c.peer, c.status), 0);
        for (const char* line : c.lines) EXPECT_TRUE(clientLog->waitFor(line));
    }
}

}  // namespace
