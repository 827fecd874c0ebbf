// Two processes over the platform whose pointers may differ in width. This program is the client and starts its service
// with the command it is given: itself, or the same program built for the other width.
#include <gtest/gtest.h>
#include <unistd.h>

#include "../platform/Endpoint.h"
#include "Process.h"

using namespace nipctest;

namespace {

constexpr std::uint16_t kUuid = 41990;
constexpr std::uint16_t kWidth = 2000;    // Answered with the size of the service's pointers.
constexpr std::uint16_t kRequest = 2001;  // Echoed.
constexpr std::uint16_t kEvent = 3000;    // Follows each asynchronous request.
constexpr std::uint16_t kOffer = 3001;    // Too, with a context that the service chose.
constexpr std::uint64_t kWide = 0x123456789ABCDEF0U;

std::vector<std::string> serviceProgram;

void* wideContext() { return contextOf(static_cast<std::uintptr_t>(kWide)); }

std::uint64_t valueOf(const void* context) { return reinterpret_cast<std::uintptr_t>(context); }

/// Sends the bytes and the context of a received share back.
void shareBack(const Endpoint& self, const Message& message) {
    const int region = regionOf(message.data);
    const ShareFdMetadata metadata{static_cast<std::uint32_t>(message.data.size()), kRequest,
                                   static_cast<std::uint32_t>(valueOf(message.context))};
    self.share(message.peer, region, metadata);
    close(region);
}

void serve(Endpoint& self, const Message& message, nexNipc_parameter_t& parameter) {
    if (message.type == SYNC_FUNCTION)
        answer(parameter, message.id == kWidth ? std::to_string(sizeof(void*)) : message.data.substr(0, 16384));
    if (message.type != ASYNC_FUNCTION) return;
    if (message.id == SERVER_SHARE_FD_ID) {
        self.callback(message.peer, SERVER_FD_PROCESSING_COMPLETED_ID, "");
        shareBack(self, message);
    } else if (message.id == kRequest) {
        self.callback(message.peer, ASYNC_RESPONSE_SUCCESS_ID, message.data, message.context);
        self.callback(message.peer, kEvent, std::to_string(valueOf(message.context)));
        self.callback(message.peer, kOffer, "", wideContext());
    }
}

int service(const std::vector<std::string>&) {
    Endpoint endpoint(serve);
    say("started " + std::to_string(endpoint.start(kUuid)));
    hearParent();
    return endpoint.disconnect();
}

class CrossWidth : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(process.hear(), "started 0");
        ASSERT_EQ(client.connect(kUuid), 0);
        EXPECT_EQ(client.next(NEX_NIPC_EVENT_CONNECTION_DONE).status, 0);
        const std::string width = client.call(kWidth, "").response;
        ASSERT_TRUE(width == "4" || width == "8") << width;
        // Whole between two 64-bit ends, else its low 32 bits.
        expectedContext = sizeof(void*) == 8 && width == "8" ? kWide : kWide & 0xFFFFFFFFU;
    }

    void TearDown() override {
        process.send("end");
        EXPECT_EQ(process.wait(), 0);
    }

    const ServiceDirectory directory;
    Process process{{"service"}, serviceProgram};
    Endpoint client{[](Endpoint& self, const Message& message, nexNipc_parameter_t&) {
        if (message.id == CLIENT_SHARE_FD_ID) self.request(CLIENT_FD_PROCESSING_COMPLETED_ID, "");
    }};
    std::uint64_t expectedContext = 0;
};

TEST_F(CrossWidth, SynchronousRequestsOfEverySizeAreAnswered) {
    for (const std::size_t size : {0U, 1U, 16383U, 16384U, 1048576U}) {
        SCOPED_TRACE(size);
        const std::string payload(size, 's');
        const Answer answer = client.call(kRequest, payload);
        EXPECT_EQ(answer.transport, 0);
        EXPECT_EQ(answer.status, 0);
        EXPECT_EQ(answer.response == payload.substr(0, 16384), true);
    }
}

TEST_F(CrossWidth, AContextArrivesAsWideAsBothEndsAre) {
    const std::string payload(16383, 'a');
    ASSERT_EQ(client.request(kRequest, payload, wideContext()), 0);
    const Message answer = client.next(ASYNC_RESPONSE_SUCCESS_ID);
    EXPECT_EQ(valueOf(answer.context), expectedContext);
    EXPECT_EQ(answer.data == payload, true);

    const Message event = client.next(kEvent);
    EXPECT_EQ(event.context, nullptr);
    EXPECT_EQ(event.data, std::to_string(expectedContext)) << "the context as the service saw it";
    EXPECT_EQ(valueOf(client.next(kOffer).context), expectedContext);
}

TEST_F(CrossWidth, ALargePayloadTravelsWithTheLowHalfOfItsContext) {
    std::string payload(5242880, 'L');
    payload.replace(4096, 5, "there");
    const ShareFdMetadata metadata{static_cast<std::uint32_t>(payload.size()), kRequest,
                                   static_cast<std::uint32_t>(kWide)};
    const int region = regionOf(payload);
    ASSERT_EQ(client.share(0, region, metadata), 0);
    close(region);
    client.next(SERVER_FD_PROCESSING_COMPLETED_ID);
    const Message back = client.next(CLIENT_SHARE_FD_ID);
    EXPECT_EQ(valueOf(back.context), kWide & 0xFFFFFFFFU);
    EXPECT_EQ(back.data == payload, true);
}

}  // namespace

int main(int argc, char** argv) {
    const int status = runRole(argc, argv, {{"service", service}});
    if (status >= 0) return status;
    testing::InitGoogleTest(&argc, argv);
    serviceProgram.assign(argv + 1, argv + argc);
    if (serviceProgram.empty()) serviceProgram = thisProgram();
    return RUN_ALL_TESTS();
}
