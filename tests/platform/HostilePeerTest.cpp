// What a peer that does not keep to the frame format can do: lose its own connection, and nothing else.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <list>
#include <thread>

#include "PlatformTest.h"
#include "linux/Frame.h"

using namespace nexnipc;
using namespace nipctest;
using namespace std::chrono_literals;

namespace {

struct Packet {
    FrameHeader header{};
    std::string payload;
    std::list<int> descriptors;  // Open ones, when received.
};

FrameHeader header(FrameType type, std::uint16_t function, std::uint32_t length, std::uint64_t context = 0,
                   std::uint32_t sequence = 0, std::int32_t status = 0) {
    return {type, function, length, context, sequence, status};
}

template <class Record>
std::string bytesOf(const Record& record) {
    return {reinterpret_cast<const char*>(&record), sizeof record};
}

/// One end of a socket of the platform, without the platform.
class RawPeer {
public:
    explicit RawPeer(int descriptor = -1) : socket_(descriptor) {}
    RawPeer(RawPeer&& other) noexcept : socket_(std::exchange(other.socket_, -1)) {}
    ~RawPeer() { close(socket_); }

    static RawPeer connectTo(const std::string& path) {
        RawPeer peer(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        const sockaddr_un address = addressOf(path);
        EXPECT_EQ(connect(peer.socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        return peer;
    }

    static RawPeer listenAt(const std::string& path) {
        RawPeer peer(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        const sockaddr_un address = addressOf(path);
        EXPECT_EQ(bind(peer.socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(peer.socket_, 8), 0);
        return peer;
    }

    RawPeer accept() const { return RawPeer(accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC)); }

    void send(std::string bytes, int descriptor = -1, int copies = 1) const {
        iovec data{bytes.data(), bytes.size()};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * 8)] = {};
        msghdr message{};
        message.msg_iov = &data;
        message.msg_iovlen = 1;
        if (descriptor >= 0) {
            message.msg_control = control;
            message.msg_controllen = CMSG_SPACE(sizeof(int) * static_cast<unsigned>(copies));
            cmsghdr* item = CMSG_FIRSTHDR(&message);
            item->cmsg_level = SOL_SOCKET;
            item->cmsg_type = SCM_RIGHTS;
            item->cmsg_len = CMSG_LEN(sizeof(int) * static_cast<unsigned>(copies));
            for (int i = 0; i < copies; ++i) std::memcpy(CMSG_DATA(item) + i * 4, &descriptor, sizeof(int));
        }
        sendmsg(socket_, &message, MSG_NOSIGNAL);
    }

    /// The next packet's first descriptor, or -1.
    int receiveDescriptor() const {
        char bytes[512];
        iovec data{bytes, sizeof bytes};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        msghdr message{};
        message.msg_iov = &data;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        if (!readable() || recvmsg(socket_, &message, MSG_CMSG_CLOEXEC) <= 0) return -1;
        const cmsghdr* item = CMSG_FIRSTHDR(&message);
        int descriptor = -1;
        if (item != nullptr) std::memcpy(&descriptor, CMSG_DATA(item), sizeof descriptor);
        return descriptor;
    }

    /// Whether the other side closes, whatever it says before.
    bool isClosed() const {
        char bytes[512];
        ssize_t size = 1;
        while (size > 0 && readable()) size = recv(socket_, bytes, sizeof bytes, MSG_DONTWAIT);
        return size == 0 || (size < 0 && errno == ECONNRESET);
    }

private:
    static sockaddr_un addressOf(const std::string& path) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        return address;
    }
    bool readable() const {
        pollfd ready{socket_, POLLIN, 0};
        return poll(&ready, 1, static_cast<int>(std::chrono::milliseconds(kPatience).count())) == 1;
    }

    int socket_;
};

Hello hello(std::uint16_t uuid = kUuid) {
    Hello greeting;
    greeting.uuid = uuid;
    return greeting;
}

std::string helloPacket(const Hello& greeting) {
    return bytesOf(header(FrameType::Hello, 0, sizeof greeting)) + bytesOf(greeting);
}

std::string packet(const FrameHeader& frame, std::size_t payload) { return bytesOf(frame) + std::string(payload, 'x'); }

const struct Violation {
    const char* name;
    FrameHeader frame;
    std::size_t payload;
    int descriptors = 0;
    bool onControl = false;
} kToService[] = {
    {"a type of nobody", header(FrameType{99}, kRequest, 0), 0},
    {"a frame of the other direction", header(FrameType::Callback, kRequest, 0), 0},
    {"a second greeting", header(FrameType::Hello, 0, sizeof(Hello)), sizeof(Hello)},
    {"a frame of another lane", header(FrameType::Ack, 1000, 0), 0},
    {"more than announced", header(FrameType::AsyncRequest, kRequest, 4), 5},
    {"less than announced", header(FrameType::AsyncRequest, kRequest, 5), 4},
    {"more than a packet may hold", header(FrameType::AsyncRequest, kRequest, 16385), 16385},
    {"a length without end", header(FrameType::AsyncRequest, kRequest, 0xFFFFFFFFU), 4},
    {"a share identifier in a request", header(FrameType::AsyncRequest, SERVER_SHARE_FD_ID, 0), 0},
    {"an acknowledgement as request", header(FrameType::AsyncRequest, 1000, 0), 0},
    {"the other side's as request", header(FrameType::AsyncRequest, 1001, 0), 0},
    {"a share identifier in a call", header(FrameType::SyncRequest, SERVER_SHARE_FD_ID, 0), 0},
    {"an acknowledgement as call", header(FrameType::SyncRequest, 1000, 0), 0},
    {"a descriptor unasked", header(FrameType::AsyncRequest, kRequest, 4), 4, 1},
#ifndef NIPC_TEST_EMULATOR  // qemu-user takes in descriptors that it then cannot hand over.
    {"many descriptors", header(FrameType::Share, SERVER_SHARE_FD_ID, 10), 10, 8},
#endif
    {"a call on a channel of nobody", header(FrameType::SyncRequest, kRequest, 0, 16384, 1, 77), 0},
    {"a large call without its region", header(FrameType::SyncRequest, kRequest, 1U << 20U, 16384, 1, 0), 0},
    {"a request on the control lane", header(FrameType::AsyncRequest, kRequest, 0), 0, 0, true},
    {"an acknowledgement of nothing known", header(FrameType::Ack, 1001, 0), 0, 0, true},
    {"a channel with a descriptor", header(FrameType::OpenChannel, 0, 0), 0, 1, true},
};

const Violation kToClient[] = {
    {"a type of nobody", header(FrameType{99}, kEvent, 0), 0},
    {"a frame of the other direction", header(FrameType::AsyncRequest, kEvent, 0), 0},
    {"more than announced", header(FrameType::Callback, kEvent, 4), 5},
    {"a share identifier in an event", header(FrameType::Callback, CLIENT_SHARE_FD_ID, 0), 0},
    {"an acknowledgement as event", header(FrameType::Callback, 1001, 0), 0},
    {"the other side's as event", header(FrameType::Callback, 1000, 0), 0},
    {"a descriptor unasked", header(FrameType::Callback, kEvent, 0), 0, 1},
    {"an event on the control lane", header(FrameType::Callback, kEvent, 0), 0, 0, true},
    {"a channel unasked", header(FrameType::ChannelOpened, 0, 0), 0, 1, true},
};

}  // namespace

class HostilePeerTest : public PlatformTest {
protected:
    HostilePeerTest() : path_(directory.path + "/" + std::to_string(kUuid) + ".sock") {}

    struct Client {
        RawPeer main;
        RawPeer control;
    };

    /// A peer that has been let in.
    Client letIn() const {
        RawPeer peer = RawPeer::connectTo(path_);
        peer.send(helloPacket(hello()));
        const int control = peer.receiveDescriptor();
        return {std::move(peer), RawPeer(control)};
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
        const Client peer = letIn();
        if (v.frame.type == FrameType::SyncRequest && v.frame.status == 0) {
            peer.control.send(bytesOf(header(FrameType::OpenChannel, 0, 0)));
            close(peer.control.receiveDescriptor());
        }
        const RawPeer& lane = v.onControl ? peer.control : peer.main;
        lane.send(packet(v.frame, v.payload), v.descriptors > 0 ? null_ : -1, v.descriptors);
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
    Hello magic = hello();
    magic.magic = 1;
    Hello version = hello();
    version.minVersion = version.maxVersion = kVersion + 1;
    const struct {
        const char* name;
        std::string bytes;
        int descriptors;
    } cases[] = {
        {"another magic number", helloPacket(magic), 0},
        {"a version of the future", helloPacket(version), 0},
        {"another service", helloPacket(hello(kUuid + 1)), 0},
        {"half a greeting", helloPacket(hello()).substr(0, 30), 0},
        {"more than a greeting", helloPacket(hello()) + "x", 0},
        {"a request first", packet(header(FrameType::AsyncRequest, kRequest, 4), 4), 0},
        {"a descriptor with it", helloPacket(hello()), 1},
        {"a probe", helloPacket([] {
             Hello probe = hello();
             probe.flags = kHelloProbe;
             return probe;
         }()),
         0},
        {"nothing", "", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const RawPeer peer = RawPeer::connectTo(path_);
        if (!c.bytes.empty()) peer.send(c.bytes, c.descriptors > 0 ? null_ : -1);
        EXPECT_TRUE(peer.isClosed());
    }
    EXPECT_EQ(service.count(NEX_NIPC_EVENT_CLIENT_CONNECTED), 0U);
}

TEST_F(HostilePeerTest, AThousandConnectionsDoNotKeepOthersOut) {
    Endpoint service;
    ASSERT_EQ(service.start(kUuid), 0);
    std::list<RawPeer> halfOpen;
    for (int i = 0; i < 1000; ++i) {
        halfOpen.push_back(RawPeer::connectTo(path_));
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
    std::list<Client> silent;
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
        const Client peer = letIn();
        const std::uint16_t id = service.next(NEX_NIPC_EVENT_CLIENT_CONNECTED).peer;
        while (service.callback(id, ASYNC_RESPONSE_SUCCESS_ID, std::string(16383, 'x'), contextOf(1)) == 0) continue;
        for (int i = 0; i < 50; ++i) peer.main.send(packet(header(FrameType::AsyncRequest, kRequest, 4), 4));
    }
    service.next(NEX_NIPC_EVENT_CLIENT_DISCONNECTED);
    EXPECT_EQ(service.count(kRequest), 50U);
}

TEST_F(HostilePeerTest, AServiceThatBreaksTheRulesIsReportedDown) {
    const RawPeer listener = RawPeer::listenAt(path_);
    Welcome welcome;
    welcome.version = kVersion;
    welcome.clientId = 1;
    Welcome strange = welcome;
    strange.magic = 1;
    const FrameHeader greeting = header(FrameType::Welcome, 0, sizeof welcome);
    const auto greet = [&](Endpoint& client, const std::string& bytes, int descriptor) {
        std::future<nex_status_t> status = std::async(std::launch::async, [&] { return client.connect(kUuid); });
        RawPeer peer = listener.accept();
        if (!bytes.empty() || descriptor >= 0) peer.send(bytes, descriptor);
        return std::make_pair(status.get(), std::move(peer));
    };

    Endpoint refused;
    EXPECT_NE(greet(refused, "", -1).first, 0);
    const std::size_t descriptors = descriptorCount(getpid());
    EXPECT_NE(greet(refused, bytesOf(greeting) + bytesOf(strange), null_).first, 0);
    EXPECT_NE(greet(refused, bytesOf(greeting) + bytesOf(welcome), -1).first, 0);
    EXPECT_NE(greet(refused, "", null_).first, 0);
    EXPECT_EQ(refused.count(NEX_NIPC_EVENT_CONNECTION_DONE), 0U);
    EXPECT_EQ(descriptorCount(getpid()), descriptors);
    for (const Violation& v : kToClient) {
        SCOPED_TRACE(v.name);
        int control[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, control), 0);
        const RawPeer ours(control[0]);
        Endpoint client;
        const auto [status, peer] = greet(client, bytesOf(greeting) + bytesOf(welcome), control[1]);
        close(control[1]);
        ASSERT_EQ(status, 0);
        (v.onControl ? ours : peer).send(packet(v.frame, v.payload), v.descriptors > 0 ? null_ : -1, v.descriptors);
        EXPECT_TRUE(peer.isClosed());
        client.next(NEX_NIPC_EVENT_SERVER_DOWN);
        EXPECT_NE(client.request(kRequest, "x"), 0);
    }
}
