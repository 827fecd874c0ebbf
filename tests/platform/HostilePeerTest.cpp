// What a peer that does not keep to the frame format can do: lose its own connection, and nothing else.
#include <fcntl.h>
#include <sys/socket.h>

#include <list>
#include <thread>

#include "PlatformTest.h"
#include "RawPeer.h"

using namespace nexnipc;
using namespace nipctest;

class HostilePeerTest : public PlatformTest {
protected:
    HostilePeerTest() : path_(directory.path + "/" + std::to_string(kUuid) + ".sock") {}
    ~HostilePeerTest() override { close(null_); }

    RawClient letIn() const { return ::letIn(path_, kUuid); }

    /// What a client gets to whom a service says that.
    static std::pair<nex_status_t, RawPeer> greet(const RawPeer& listener, Endpoint& client, const std::string& bytes,
                                                  const std::vector<int>& descriptors) {
        std::future<nex_status_t> status = std::async(std::launch::async, [&] { return client.connect(kUuid); });
        RawPeer peer = listener.accept();
        if (!bytes.empty() || !descriptors.empty()) peer.send(bytes, descriptors);
        return {status.get(), std::move(peer)};
    }
    static Welcome goodWelcome() {
        Welcome welcome;
        welcome.version = kVersion;
        welcome.clientId = 1;
        welcome.serviceHandle = 1;
        return welcome;
    }

    const std::string path_;
    const int null_ = open("/dev/null", O_RDWR | O_CLOEXEC);
};

TEST_F(HostilePeerTest, AClientThatBreaksTheRulesLosesItsConnectionAlone) {
    Endpoint service;
    Endpoint client;
    ASSERT_EQ(service.start(kUuid), 0);
    ASSERT_EQ(client.connect(kUuid), 0);
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
        service.next(NEX_NIPC_EVENT_CLIENT_CONNECTED);
        service.next(NEX_NIPC_EVENT_CLIENT_DISCONNECTED);
    }
    EXPECT_EQ(service.count(SERVER_SHARE_FD_ID), 0U);
    EXPECT_TRUE(eventually([&] { return descriptorCount(getpid()) <= descriptors; }));
}

TEST_F(HostilePeerTest, AGreetingThatIsNoneIsRefused) {
    Endpoint service;
    ASSERT_EQ(service.start(kUuid), 0);
    std::vector<Greeting> cases = badGreetings(kUuid);
    cases.push_back({"nothing", "", 0});
    for (const Greeting& c : cases) {
        SCOPED_TRACE(c.name);
        const RawPeer peer = RawPeer::connectTo(path_);
        if (!c.bytes.empty()) peer.send(c.bytes, std::vector<int>(static_cast<std::size_t>(c.descriptors), null_));
        EXPECT_TRUE(peer.isClosed());
    }
    EXPECT_EQ(service.count(NEX_NIPC_EVENT_CLIENT_CONNECTED), 0U);
}

TEST_F(HostilePeerTest, AClientThatLeavesItsOwnEndsUnreadIsForgotten) {
    Endpoint service;
    ASSERT_EQ(service.start(kUuid), 0);
    for (const std::string where : {"main", "channel", "both"}) {
        SCOPED_TRACE(where);
        Process client({"abandoning", std::to_string(kUuid), path_});
        ASSERT_EQ(client.hear(), "in");
        const std::uint16_t id = service.next(NEX_NIPC_EVENT_CLIENT_CONNECTED).peer;
        while (where != "channel" && service.callback(id, kEvent, std::string(16000, '.')) == 0)
            continue;  // Till its requests must wait.
        client.send(where);
        ASSERT_EQ(client.wait(), 0);
        const RawClient next = where == "both" ? letIn() : RawClient();  // Nothing else shows that it has ended.
        EXPECT_EQ(service.next(NEX_NIPC_EVENT_CLIENT_DISCONNECTED).peer, id);
    }
}

TEST_F(HostilePeerTest, AThousandConnectionsDoNotKeepOthersOut) {
    Endpoint service;
    ASSERT_EQ(service.start(kUuid), 0);
    std::list<RawPeer> halfOpen;
    for (int i = 0; i < 1000; ++i) {
        RawPeer peer;
        while (!peer.valid()) peer = RawPeer::connectTo(path_);
        halfOpen.push_back(std::move(peer));
        if (halfOpen.size() > 80) halfOpen.pop_front();
    }
    Endpoint client;
    EXPECT_TRUE(eventually([&] { return client.connect(kUuid) == 0; }));  // Refused while the backlog is full.
    EXPECT_EQ(client.call(kRequest, "x").response, "x");
}

TEST_F(HostilePeerTest, WhatIsQueuedForSilentClientsHasALimitInAll) {
    Endpoint service;
    ASSERT_EQ(service.start(kUuid), 0);
    const std::string payload(16383, 'x');
    std::list<RawClient> silent;
    std::size_t queued = 0;
    for (int i = 0; i < 50; ++i) {
        silent.push_back(letIn());
        const std::uint16_t id = service.next(NEX_NIPC_EVENT_CLIENT_CONNECTED).peer;
        while (service.callback(id, ASYNC_RESPONSE_SUCCESS_ID, payload, contextOf(1)) == 0) queued += payload.size();
    }
    EXPECT_GT(queued, 60U << 20U);
    EXPECT_LT(queued, (64U << 20U) + 50U * (512U << 10U));
    Endpoint client;
    ASSERT_EQ(client.connect(kUuid), 0);
    EXPECT_EQ(client.call(kRequest, "x").response, "x");
}

TEST_F(HostilePeerTest, WhatASilentClientSentBeforeItLeftArrives) {
    Endpoint service;
    ASSERT_EQ(service.start(kUuid), 0);
    {
        const RawClient peer = letIn();
        const std::uint16_t id = service.next(NEX_NIPC_EVENT_CLIENT_CONNECTED).peer;
        while (service.callback(id, ASYNC_RESPONSE_SUCCESS_ID, std::string(16383, 'x'), contextOf(1)) == 0) continue;
        for (int i = 0; i < 50; ++i) peer.main.send(packet(header(FrameType::AsyncRequest, kRequest, 4), 4));
    }
    service.next(NEX_NIPC_EVENT_CLIENT_DISCONNECTED);
    EXPECT_EQ(service.count(kRequest), 50U);
}

TEST_F(HostilePeerTest, AServiceThatBreaksTheRulesIsReportedDown) {
    const RawPeer listener = RawPeer::listenAt(path_);
    const Welcome welcome = goodWelcome();
    Welcome strange = welcome;
    strange.magic = 1;
    Endpoint refused;
    EXPECT_NE(greet(listener, refused, "", {}).first, 0);
    [[maybe_unused]] const std::size_t descriptors = descriptorCount(getpid());
    EXPECT_NE(greet(listener, refused, welcomePacket(strange), {null_}).first, 0);
    EXPECT_NE(greet(listener, refused, welcomePacket(welcome), {}).first, 0);
    EXPECT_NE(greet(listener, refused, welcomePacket(welcome), {null_, null_}).first, 0);
    EXPECT_NE(greet(listener, refused, "", {null_}).first, 0);
    EXPECT_NE(greet(listener, refused, welcomePacket(welcome), {null_}).first, 0);
    EXPECT_EQ(refused.count(NEX_NIPC_EVENT_CONNECTION_DONE), 0U);
#ifndef NIPC_TEST_EMULATOR  // It keeps what comes beside the one descriptor that is taken in.
    EXPECT_TRUE(eventually([&] { return descriptorCount(getpid()) <= descriptors; }));
#endif
    for (const Violation& v : kToClient) {
        SCOPED_TRACE(v.name);
        auto [ours, theirs] = RawPeer::pair();
        Endpoint client;
        const auto [status, peer] = greet(listener, client, welcomePacket(welcome), {theirs.fd()});
        theirs = RawPeer();
        ASSERT_EQ(status, 0);
        v.commit(peer, ours, null_);
        EXPECT_TRUE(peer.isClosed());
        client.next(NEX_NIPC_EVENT_SERVER_DOWN);
        EXPECT_NE(client.request(kRequest, "x"), 0);
    }
}

// Closing wakes nobody who waits on a socket of that kind.
TEST_F(HostilePeerTest, ACallDoesNotWaitOnAChannelThatIsNone) {
    const RawPeer listener = RawPeer::listenAt(path_);
    auto [ours, theirs] = RawPeer::pair();
    Endpoint client;
    const auto [status, peer] = greet(listener, client, welcomePacket(goodWelcome()), {theirs.fd()});
    ASSERT_EQ(status, 0);
    auto call = std::async(std::launch::async, [&] { return client.call(kRequest, "x").transport; });
    ours.receiveDescriptor();
    const RawPeer channel(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, 0));
    ours.send(packet(header(FrameType::ChannelOpened, 0, 0), 0), {channel.fd()});
    EXPECT_TRUE(peer.isClosed());
    EXPECT_EQ(call.get(), -ECONNRESET);
}
