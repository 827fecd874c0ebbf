// What is promised of shared regions, their acknowledgements, and of peers that do not read.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "PlatformTest.h"

using namespace nipctest;
using namespace std::chrono_literals;

namespace {

int unsealedRegion() {
    const int region = memfd_create("test", MFD_CLOEXEC);
    return write(region, "payload", 7) == 7 ? region : -1;
}

// Nothing, where the machine has none of them.
int hugeRegion() {
    const int region = memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING | MFD_HUGETLB);
    if (region >= 0 && ftruncate(region, 1 << 30) == 0)
        fcntl(region, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL);
    return region;
}

int pipeEnd() {
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) == 0) close(ends[0]);
    return ends[1];
}

const std::string kPacket(16000, 'p');

bool shareWhole(const Endpoint& from, std::uint16_t to, const std::string& text) {
    const int region = regionOf(text);
    const bool sent = from.share(to, region, {static_cast<std::uint32_t>(text.size()), kRequest, 0}) == 0;
    close(region);
    return sent;
}

}  // namespace

using SharingTest = PlatformTest;

TEST_F(SharingTest, OnlyASealedRegionOfTheClaimedSizeIsDelivered) {
    Service service;
    Client client;
    const std::uint16_t id = service.arrived();
    const struct {
        const char* name;
        int region;
        std::uint32_t length;
        const char* data = "";
        bool hasDescriptors = true;
        std::uint32_t metadataSize = sizeof(ShareFdMetadata);
    } cases[] = {
        {"whole", regionOf("payload"), 7, "payload"},
        {"unsealed", unsealedRegion(), 7},
        {"shorter than claimed", regionOf("payload"), 8},
        {"longer than any payload", regionOf(std::string(5242881, 'x')), 5242881},
        {"not a region", open("/dev/null", O_RDWR | O_CLOEXEC), 7},
        {"a directory", open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC), 7},
        {"a pipe", pipeEnd(), 7},
        {"a socket", socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), 7},
        {"of huge pages", hugeRegion(), 7},
        {"no length", regionOf("payload"), 0},
        {"no descriptor", -1, 7, "", false},
        {"short metadata", regionOf("payload"), 7, "", true, sizeof(ShareFdMetadata) - 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        if (c.region < 0 && c.hasDescriptors) continue;  // No huge pages here.
        const ShareFdMetadata metadata{c.length, kRequest, 0x87654321U};
        const bool hasMetadata = c.metadataSize == sizeof metadata;
        for (const bool toService : {true, false}) {
            Endpoint& from = toService ? static_cast<Endpoint&>(client) : service;
            Endpoint& to = toService ? static_cast<Endpoint&>(service) : client;
            EXPECT_EQ(from.share(toService ? 0 : id, c.region, metadata, c.metadataSize), 0);
            const Message share = to.next(toService ? SERVER_SHARE_FD_ID : CLIENT_SHARE_FD_ID);
            EXPECT_EQ(share.hasDescriptors, c.hasDescriptors);
            EXPECT_EQ(share.hasMetadata, hasMetadata);
            EXPECT_TRUE(share.data == c.data);
            EXPECT_EQ(share.descriptor >= 0, c.data[0] != '\0' || (c.hasDescriptors && c.length == 0));
            EXPECT_EQ(share.context, contextOf(c.hasDescriptors && hasMetadata ? 0x87654321U : 0));
        }
        if (c.region >= 0) close(c.region);
    }
}

TEST_F(SharingTest, OneAcknowledgementOfTheLatestShareIsDelivered) {
    Signal secondSent;
    int shares = 0;
    Service service([&](Endpoint& self, const Message& message, nexNipc_parameter_t&) {
        if (message.id != SERVER_SHARE_FD_ID) return;
        if (++shares == 1) secondSent.wait();  // So this one comes too late,
        self.callback(message.peer, SERVER_FD_PROCESSING_COMPLETED_ID, "");
        self.callback(message.peer, SERVER_FD_PROCESSING_COMPLETED_ID, "");  // and this one too often.
    });
    Client client([](Endpoint& self, const Message& message, nexNipc_parameter_t&) {
        if (message.id == CLIENT_SHARE_FD_ID) self.request(CLIENT_FD_PROCESSING_COMPLETED_ID, "");
    });
    const std::uint16_t id = service.arrived();
    service.callback(id, SERVER_FD_PROCESSING_COMPLETED_ID, "");  // Nobody asked.
    client.request(CLIENT_FD_PROCESSING_COMPLETED_ID, "");
    EXPECT_TRUE(shareWhole(client, 0, "first"));
    EXPECT_TRUE(shareWhole(client, 0, "second"));
    secondSent.set();
    const Message toClient = client.next(SERVER_FD_PROCESSING_COMPLETED_ID);
    EXPECT_EQ(toClient.type, std::uint32_t{CALLBACK});
    EXPECT_EQ(toClient.context, nullptr);
    EXPECT_TRUE(shareWhole(client, 0, "third"));
    client.next(SERVER_FD_PROCESSING_COMPLETED_ID);
    EXPECT_TRUE(shareWhole(service, id, "there"));
    EXPECT_EQ(service.next(CLIENT_FD_PROCESSING_COMPLETED_ID).type, std::uint32_t{ASYNC_FUNCTION});
    client.disconnect();  // After it nothing comes any more, so the count is final.
    service.left();
    EXPECT_EQ(client.count(SERVER_FD_PROCESSING_COMPLETED_ID), 0U);
    EXPECT_EQ(service.count(CLIENT_FD_PROCESSING_COMPLETED_ID), 0U);
}

TEST_F(SharingTest, AListenerMayShareAndWaitForTheAcknowledgement) {
    std::atomic<int> inTime{0};
    Service service([&](Endpoint& self, const Message& message, nexNipc_parameter_t&) {
        if (message.id == SERVER_SHARE_FD_ID) self.callback(message.peer, SERVER_FD_PROCESSING_COMPLETED_ID, "");
        if (message.id != kRequest) return;
        shareWhole(self, message.peer, std::string(100000, 's'));
        if (self.next(CLIENT_FD_PROCESSING_COMPLETED_ID).type == ASYNC_FUNCTION) ++inTime;
        self.callback(message.peer, kEvent, "");
    });
    Client client([&](Endpoint& self, const Message& message, nexNipc_parameter_t&) {
        if (message.id == CLIENT_SHARE_FD_ID) self.request(CLIENT_FD_PROCESSING_COMPLETED_ID, "");
        if (message.id != kEvent) return;
        shareWhole(self, 0, std::string(100000, 'c'));
        if (self.next(SERVER_FD_PROCESSING_COMPLETED_ID).type == CALLBACK) ++inTime;
    });
    ASSERT_EQ(client.request(kRequest, ""), 0);
    EXPECT_EQ(client.next(CLIENT_SHARE_FD_ID).data, std::string(100000, 's'));
    EXPECT_EQ(service.next(SERVER_SHARE_FD_ID).data, std::string(100000, 'c'));
    client.next(kEvent);
    EXPECT_EQ(inTime, 2);
}

TEST_F(SharingTest, AClientThatDoesNotReadLosesOnlyItsOwnEventsAndCallsAllTheSame) {
    Signal inside;
    Signal release;
    std::string response;
    std::size_t served = 0;
    Service service;
    Client other;
    const std::uint16_t otherId = service.arrived();
    Client client([&](Endpoint& self, const Message& message, nexNipc_parameter_t&) {
        if (message.data != "first") return;
        inside.set();
        release.wait();
        self.request(kRequest, "before it");
        response = self.call(kRequest, "call").response;
        self.request(kRequest, "after it");  // Waits again, until the events have been taken.
        for (int i = 0; i < 3; ++i) other.call(kNever, "");
        served = service.count(kRequest);
    });
    const std::uint16_t id = service.arrived();
    ASSERT_EQ(service.callback(id, kEvent, "first"), 0);
    ASSERT_TRUE(inside.wait());

    // Events fill three quarters of 2 MiB beyond what the kernel holds, answers the rest.
    const std::size_t events = service.fill(id);
    const std::size_t answers = service.fill(id, ASYNC_RESPONSE_SUCCESS_ID, contextOf(7));
    EXPECT_GE(events, 90U);
    EXPECT_LE(events, 200U);
    EXPECT_GE(answers, 24U);
    EXPECT_LE(answers, 40U);

    // The others go on; a request of the silent one waits until it reads, or waits itself for an answer.
    EXPECT_EQ(service.callback(otherId, kEvent, "news"), 0);
    EXPECT_EQ(other.next(kEvent).data, "news");
    ASSERT_EQ(client.request(kRequest, "first of all"), 0);
    ASSERT_EQ(other.request(kRequest, "other"), 0);
    EXPECT_EQ(service.next(kRequest).data, "other");
    EXPECT_EQ(service.count(kRequest), 0U);
    release.set();
    for (std::size_t i = 0; i <= events && !HasFailure(); ++i) client.next(kEvent);
    for (std::size_t i = 0; i < answers && !HasFailure(); ++i) {
        EXPECT_EQ(client.next(ASYNC_RESPONSE_SUCCESS_ID).data, kPacket);
    }
    EXPECT_EQ(response, "call");
    EXPECT_EQ(served, 3U);
    for (const char* text : {"first of all", "before it", "call", "after it"})
        EXPECT_EQ(service.next(kRequest).data, text);
    EXPECT_EQ(service.callback(id, kEvent, "again"), 0);
    EXPECT_EQ(client.next(kEvent).data, "again");
}

TEST_F(SharingTest, ARequestToAServiceThatDoesNotReadFailsAfterAWhile) {
    Signal release;
    Service service([&](Endpoint&, const Message& message, nexNipc_parameter_t& parameter) {
        if (message.id == kNever) release.wait();
        if (message.type == SYNC_FUNCTION) echo(parameter);
    });
    const Client client;
    ASSERT_EQ(client.request(kNever, ""), 0);
    std::size_t sent = 0;
    nex_status_t status = 0;
    while (sent < 10000 && (status = client.request(kRequest, kPacket)) == 0) ++sent;
    EXPECT_EQ(status, -ETIMEDOUT);
    // Signals do not begin the time anew.
    struct sigaction before {};
    struct sigaction ignorant {};
    ignorant.sa_handler = [](int) {};
    sigaction(SIGALRM, &ignorant, &before);
    const itimerval often{{0, 500000}, {0, 500000}};
    const itimerval never{};
    setitimer(ITIMER_REAL, &often, nullptr);
    EXPECT_EQ(client.request(kRequest, kPacket), -ETIMEDOUT);
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &before, nullptr);
    release.set();
    for (std::size_t i = 0; i < sent; ++i) service.next(kRequest);
    EXPECT_EQ(client.call(kRequest, "again").response, "again");
}
