// What a peer that does not keep to the frame format can do: lose its own connection, and nothing else.
#include <fcntl.h>
#include <sys/socket.h>

#include <list>

#include "PlatformTest.h"
#include "linux/SealedMemory.h"

using namespace nexnipc;
using namespace nipctest;

class HostilePeerTest : public PlatformTest {
protected:
    ~HostilePeerTest() override { close(null_); }

    const int null_ = open("/dev/null", O_RDWR | O_CLOEXEC);
};

TEST_F(HostilePeerTest, AClientThatBreaksTheRulesLosesItsConnectionAlone) {
    Service service;
    const Client client;
    ASSERT_EQ(client.call(kRequest, "x").response, "x");
    const std::size_t descriptors = descriptorCount(getpid());
    for (const Violation& v : kToService) {
        SCOPED_TRACE(v.name);
        const RawClient peer = letIn();
        if (v.needsChannel()) {
            peer.control.send(bytesOf(header(FrameType::OpenChannel, 0, 0)));
            peer.control.receiveDescriptor();
        }
        v.commit(peer.main, peer.control, null_);
        EXPECT_TRUE(peer.main.isClosed());
        EXPECT_EQ(client.call(kRequest, v.name).response, v.name);
        service.arrived();
        service.left();
    }
    EXPECT_EQ(service.count(SERVER_SHARE_FD_ID), 0U);
    EXPECT_TRUE(eventually([&] { return descriptorCount(getpid()) <= descriptors; }));
}

TEST_F(HostilePeerTest, AClientWhosePacketsOrBuffersAreNotWhatTheySayLosesItsConnection) {
    const std::string two = packetOf(FrameType::AsyncRequest, kEvent, {"good", ""});
    const std::string one = two.substr(0, two.size() - sizeof(FrameHeader));  // And padding.
    const std::string offer = packet(header(FrameType::Buffers, 0, 0), 0);
    const auto request = [](std::uint32_t length, std::int32_t buffer) {
        return bytesOf(header(FrameType::AsyncRequest, kRequest, length, 0, 0, buffer));
    };
    Fd another, small;
    ASSERT_EQ(SharedBuffers::make(another), 0);
    ASSERT_EQ(makeSealedRegion("small", 100000, small), 0);
    const struct {
        const char* name;
        std::string bytes;
        int descriptor = -1;
        bool hasBuffers = false;
    } cases[] = {
        {"a header cut short", one + std::string(sizeof(FrameHeader) - 1, '\0')},
        {"padding without a frame", one},
        {"a frame longer than the packet", one + request(100, 0) + "short"},
        {"a length without end", one + request(0xFFFFFFFFU, 0)},
        {"bytes behind the last frame", two + "x"},
        {"a call in a packet", one + bytesOf(header(FrameType::SyncRequest, kRequest, 0, 100, 1, 0))},
        {"a share in a packet", one + bytesOf(header(FrameType::Share, SERVER_SHARE_FD_ID, 0))},
        {"a descriptor with frames", two, null_},
        {"buffers that are too small", offer, small.get()},
        {"a number too high", request(5, 65), -1, true},
        {"a number below the first", request(5, -1), -1, true},
        {"a payload there and here", request(5, 1) + "xxxxx", -1, true},
        {"longer than a buffer", request(16385, 1), -1, true},
        {"a buffered length without end", request(0xFFFFFFFFU, 1), -1, true},
        {"a descriptor with a buffered payload", request(5, 1), null_, true},
        {"buffers offered twice", offer, another.get(), true},
    };
    Service service;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const RawClient peer = letIn();
        SharedBuffers buffers;
        if (c.hasBuffers) offerBuffers(peer, buffers);
        EXPECT_TRUE(peer.main.send(c.bytes, c.descriptor < 0 ? std::vector<int>{} : std::vector<int>{c.descriptor}));
        EXPECT_TRUE(peer.main.isClosed());
    }
    EXPECT_EQ(service.count(kRequest), 0U);
}

TEST_F(HostilePeerTest, AGreetingThatIsNoneIsRefused) {
    Service service;
    std::vector<Greeting> cases = badGreetings(kUuid);
    cases.push_back({"nothing", "", 0});
    for (const Greeting& c : cases) {
        SCOPED_TRACE(c.name);
        const RawPeer peer = RawPeer::connectTo(path);
        if (!c.bytes.empty()) peer.send(c.bytes, std::vector<int>(static_cast<std::size_t>(c.descriptors), null_));
        EXPECT_TRUE(peer.isClosed());
    }
    EXPECT_EQ(service.count(NEX_NIPC_EVENT_CLIENT_CONNECTED), 0U);
}

TEST_F(HostilePeerTest, AClientThatLeavesItsOwnEndsUnreadIsForgottenAndWhatItSentArrives) {
    Service service;
    for (const std::string where : {"none", "main", "channel", "both"}) {
        SCOPED_TRACE(where);
        Process client({"abandoning", path});
        ASSERT_EQ(client.hear(), "in");
        const std::uint16_t id = service.arrived();
        service.fill(id, ASYNC_RESPONSE_SUCCESS_ID, contextOf(1));  // Till its requests must wait.
        client.send(where);
        ASSERT_EQ(client.wait(), 0);
        const RawClient next = where == "both" ? letIn() : RawClient();  // Nothing else shows that it has ended.
        EXPECT_EQ(service.left(), id);
        EXPECT_EQ(service.count(kRequest), 50U);
        service.forget();
    }
}

TEST_F(HostilePeerTest, AThousandConnectionsDoNotKeepOthersOut) {
    Service service;
    std::list<RawPeer> halfOpen;
    for (int i = 0; i < 1000; ++i) {
        RawPeer peer;
        while (!peer.valid()) peer = RawPeer::connectTo(path);
        halfOpen.push_back(std::move(peer));
        if (halfOpen.size() > 80) halfOpen.pop_front();
    }
    Endpoint client;
    EXPECT_TRUE(eventually([&] { return client.connect(kUuid) == 0; }));  // Refused while the backlog is full.
    EXPECT_EQ(client.call(kRequest, "x").response, "x");
}

TEST_F(HostilePeerTest, AServiceThatBreaksTheRulesIsReportedDown) {
    RawService service(path);
    Endpoint refused;
    EXPECT_NE(service.greet(refused, "", {}), 0);
    [[maybe_unused]] const std::size_t descriptors = descriptorCount(getpid());
    const std::string good = welcomePacket(usualWelcome());
    Welcome strange = usualWelcome();
    strange.magic = 1;
    EXPECT_NE(service.greet(refused, welcomePacket(strange), {null_}), 0);
    EXPECT_NE(service.greet(refused, good, {}), 0);
    EXPECT_NE(service.greet(refused, good, {null_, null_}), 0);
    EXPECT_NE(service.greet(refused, "", {null_}), 0);
    EXPECT_NE(service.greet(refused, good, {null_}), 0);
    EXPECT_EQ(refused.count(NEX_NIPC_EVENT_CONNECTION_DONE), 0U);
#ifndef NIPC_TEST_EMULATOR  // It keeps what comes beside the one descriptor that is taken in.
    EXPECT_TRUE(eventually([&] { return descriptorCount(getpid()) <= descriptors; }));
#endif
    for (const Violation& v : kToClient) {
        SCOPED_TRACE(v.name);
        Endpoint client;
        service.letIn(client);
        v.commit(service.main, service.control, null_);
        EXPECT_TRUE(service.main.isClosed());
        client.next(NEX_NIPC_EVENT_SERVER_DOWN);
        EXPECT_NE(client.request(kRequest, "x"), 0);
    }
}

// Closing wakes nobody who waits on a socket of that kind.
TEST_F(HostilePeerTest, ACallDoesNotWaitOnAChannelThatIsNone) {
    RawService service(path);
    Endpoint client;
    service.letIn(client);
    auto call = std::async(std::launch::async, [&] { return client.call(kRequest, "x").transport; });
    service.control.receiveDescriptor();
    const RawPeer channel(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, 0));
    service.control.send(packet(header(FrameType::ChannelOpened, 0, 0), 0), {channel.fd()});
    EXPECT_TRUE(service.main.isClosed());
    EXPECT_EQ(call.get(), -ECONNRESET);
}
