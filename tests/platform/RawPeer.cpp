#include "RawPeer.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Process.h"

using namespace nexnipc;

namespace {

constexpr std::size_t kMostDescriptors = 253;  // The kernel's limit for one packet.
constexpr std::uint16_t kFunction = 2000;

struct Control {
    alignas(cmsghdr) char bytes[CMSG_SPACE(sizeof(int) * kMostDescriptors)] = {};
};

RawPeer makeSocket(const std::string& path, int (*use)(int, const sockaddr*, socklen_t)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    RawPeer peer(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const bool good = use(peer.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    return good ? std::move(peer) : RawPeer();
}

}  // namespace

RawPeer::~RawPeer() {
    if (valid()) close(socket_);
}

RawPeer RawPeer::connectTo(const std::string& path) { return makeSocket(path, connect); }

RawPeer RawPeer::listenAt(const std::string& path) {
    RawPeer peer = makeSocket(path, bind);
    return listen(peer.socket_, 8) == 0 ? std::move(peer) : RawPeer();
}

std::pair<RawPeer, RawPeer> RawPeer::pair() {
    int ends[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return {};
    return {RawPeer(ends[0]), RawPeer(ends[1])};
}

RawPeer RawPeer::accept() const { return RawPeer(readable() ? accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC) : -1); }

bool RawPeer::send(std::string bytes, const std::vector<int>& descriptors) const {
    iovec data{bytes.data(), bytes.size()};
    Control control;
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    const std::size_t size = descriptors.size() * sizeof(int);
    if (size > 0) {
        message.msg_control = control.bytes;
        message.msg_controllen = CMSG_SPACE(size);
        cmsghdr* const item = CMSG_FIRSTHDR(&message);
        item->cmsg_level = SOL_SOCKET;
        item->cmsg_type = SCM_RIGHTS;
        item->cmsg_len = CMSG_LEN(size);
        std::memcpy(CMSG_DATA(item), descriptors.data(), size);
    }
    return sendmsg(socket_, &message, MSG_NOSIGNAL | MSG_DONTWAIT) >= 0;
}

bool RawPeer::receive(std::string& bytes, RawPeer& descriptor) const {
    bytes.resize(sizeof(FrameHeader) + kInlineLimit);
    iovec data{bytes.data(), bytes.size()};
    Control control;
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control.bytes;
    message.msg_controllen = sizeof control.bytes;
    const ssize_t size = readable() ? recvmsg(socket_, &message, MSG_CMSG_CLOEXEC | MSG_DONTWAIT) : 0;
    bytes.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
    const cmsghdr* const item = size > 0 ? CMSG_FIRSTHDR(&message) : nullptr;
    int received = -1;
    if (item != nullptr) std::memcpy(&received, CMSG_DATA(item), sizeof received);
    descriptor = RawPeer(received);
    return size > 0;
}

RawPeer RawPeer::receiveDescriptor() const {
    std::string bytes;
    RawPeer descriptor;
    receive(bytes, descriptor);
    return descriptor;
}

bool RawPeer::isClosed() const {
    char bytes[512];
    ssize_t size = 1;
    while (size > 0 && readable()) size = recv(socket_, bytes, sizeof bytes, MSG_DONTWAIT);
    return size == 0 || (size < 0 && errno == ECONNRESET);
}

bool RawPeer::readable() const {
    pollfd ready{socket_, POLLIN, 0};
    int count = 0;
    do {  // a fuzzer's timer interrupts it
        count = poll(&ready, 1, static_cast<int>(std::chrono::milliseconds(nipctest::kPatience).count()));
    } while (count < 0 && errno == EINTR);
    return count == 1;
}

FrameHeader header(FrameType type, std::uint16_t function, std::uint32_t length, std::uint64_t context,
                   std::uint32_t sequence, std::int32_t status) {
    return {type, function, length, context, sequence, status};
}

std::string packet(const FrameHeader& frame, std::size_t payload) { return bytesOf(frame) + std::string(payload, 'x'); }

std::string packetOf(FrameType type, std::uint16_t function, const std::vector<std::string>& payloads) {
    std::string packet;
    for (const std::string& payload : payloads) {
        packet.resize(aligned(packet.size()));
        packet += bytesOf(header(type, function, static_cast<std::uint32_t>(payload.size()))) + payload;
    }
    return packet;
}

Received receiveFrames(const RawPeer& peer, std::size_t count) {
    Received all;
    std::string bytes;
    RawPeer descriptor;
    while (all.frames.size() < count && peer.receive(bytes, descriptor)) {
        ++all.packets;
        all.largest = std::max(all.largest, bytes.size());
        if (descriptor.valid()) all.descriptor = std::move(descriptor);
        RawFrame frame;
        for (std::size_t at = 0; at + sizeof(FrameHeader) <= bytes.size();) {
            std::memcpy(&frame.header, bytes.data() + at, sizeof(FrameHeader));
            frame.payload = bytes.substr(at + sizeof(FrameHeader), inlineLength(frame.header));
            at = aligned(at + sizeof(FrameHeader) + frame.payload.size());
            if (frame.header.type != FrameType::Buffers) all.frames.push_back(frame);
        }
    }
    return all;
}

Hello hello(std::uint16_t uuid) { return {kMagic, kVersion, kVersion, uuid}; }

std::string helloPacket(const Hello& greeting) {
    return bytesOf(header(FrameType::Hello, 0, sizeof greeting)) + bytesOf(greeting);
}

Welcome usualWelcome() {
    Welcome welcome;
    welcome.version = kVersion;
    welcome.clientId = 1;
    welcome.serviceHandle = 1;
    return welcome;
}

std::string welcomePacket(const Welcome& welcome) {
    return bytesOf(header(FrameType::Welcome, 0, sizeof welcome)) + bytesOf(welcome);
}

RawClient letIn(const std::string& path, std::uint16_t uuid) {
    RawClient client{RawPeer::connectTo(path), RawPeer()};
    if (client.main.send(helloPacket(hello(uuid)))) client.control = client.main.receiveDescriptor();
    return client;
}

void Violation::commit(const RawPeer& main, const RawPeer& control, int descriptor) const {
    const std::vector<int> list(static_cast<std::size_t>(descriptors), descriptor);
    (onControl ? control : main).send(packet(frame, payload), list);
}

const std::vector<Violation> kToService = {
    {"a type of nobody", header(FrameType{99}, kFunction, 0), 0},
    {"a frame of the other direction", header(FrameType::Callback, kFunction, 0), 0},
    {"a second greeting", header(FrameType::Hello, 0, sizeof(Hello)), sizeof(Hello)},
    {"a frame of another lane", header(FrameType::Ack, 1000, 0), 0},
    {"more than announced", header(FrameType::AsyncRequest, kFunction, 4), 5},
    {"less than announced", header(FrameType::AsyncRequest, kFunction, 5), 4},
    {"more than a packet may hold", header(FrameType::AsyncRequest, kFunction, 16385), 16385},
    {"a length without end", header(FrameType::AsyncRequest, kFunction, 0xFFFFFFFFU), 4},
    {"a share identifier in a request", header(FrameType::AsyncRequest, SERVER_SHARE_FD_ID, 0), 0},
    {"the other side's in a request", header(FrameType::AsyncRequest, CLIENT_SHARE_FD_ID, 0), 0},
    {"an acknowledgement as request", header(FrameType::AsyncRequest, 1000, 0), 0},
    {"the other side's as request", header(FrameType::AsyncRequest, 1001, 0), 0},
    {"a share identifier in a call", header(FrameType::SyncRequest, SERVER_SHARE_FD_ID, 0), 0},
    {"an acknowledgement as call", header(FrameType::SyncRequest, 1000, 0), 0},
    {"a descriptor unasked", header(FrameType::AsyncRequest, kFunction, 4), 4, 1},
#ifndef NIPC_TEST_EMULATOR  // qemu-user takes in descriptors that it then cannot hand over.
    {"two descriptors", header(FrameType::Share, 0, 10), 10, 2},
    {"many descriptors", header(FrameType::Share, SERVER_SHARE_FD_ID, 10), 10, kMostDescriptors},
#endif
    {"metadata without end", header(FrameType::Share, 0, 65), 65},
    {"a call on a channel of nobody", header(FrameType::SyncRequest, kFunction, 0, 16384, 1, 77), 0},
    {"a large call without its region", header(FrameType::SyncRequest, kFunction, 1U << 20U, 16384, 1, 0), 0},
    {"a large call whose region is none", header(FrameType::SyncRequest, kFunction, 1U << 20U, 16384, 1, 0), 0, 1},
    {"a request on the control lane", header(FrameType::AsyncRequest, kFunction, 0), 0, 0, true},
    {"an acknowledgement of nothing known", header(FrameType::Ack, 1001, 0), 0, 0, true},
    {"a channel with a descriptor", header(FrameType::OpenChannel, 0, 0), 0, 1, true},
    {"a payload in a buffer of nobody", header(FrameType::AsyncRequest, kFunction, 5, 0, 0, 1), 0},
    {"buffers without memory", header(FrameType::Buffers, 0, 0), 0},
    {"buffers in what is no memory", header(FrameType::Buffers, 0, 0), 0, 1},
    {"buffers on the control lane", header(FrameType::Buffers, 0, 0), 0, 1, true},
    {"an announcement with a payload", header(FrameType::Announce, 0, 8), 8},
    {"an announcement with a descriptor", header(FrameType::Announce, 0, 0), 0, 1},
    {"an end of a channel of nobody", header(FrameType::CloseChannel, 0, 0, 0, 5), 0, 0, true},
};

const std::vector<Violation> kToClient = {
    {"a type of nobody", header(FrameType{99}, kFunction, 0), 0},
    {"a frame of the other direction", header(FrameType::AsyncRequest, kFunction, 0), 0},
    {"more than announced", header(FrameType::Callback, kFunction, 4), 5},
    {"less than announced", header(FrameType::Callback, kFunction, 5), 4},
    {"a length without end", header(FrameType::Callback, kFunction, 0xFFFFFFFFU), 4},
    {"a share identifier in an event", header(FrameType::Callback, CLIENT_SHARE_FD_ID, 0), 0},
    {"an acknowledgement as event", header(FrameType::Callback, 1001, 0), 0},
    {"the other side's as event", header(FrameType::Callback, 1000, 0), 0},
    {"a descriptor unasked", header(FrameType::Callback, kFunction, 0), 0, 1},
    {"metadata without end", header(FrameType::Share, 0, 65), 65},
    {"a payload in a buffer of nobody", header(FrameType::Callback, kFunction, 5, 0, 0, 1), 0},
    {"buffers without memory", header(FrameType::Buffers, 0, 0), 0},
    {"buffers in what is no memory", header(FrameType::Buffers, 0, 0), 0, 1},
    {"an announcement with a payload", header(FrameType::Announce, 0, 8), 8},
    {"an event on the control lane", header(FrameType::Callback, kFunction, 0), 0, 0, true},
    {"a channel unasked", header(FrameType::ChannelOpened, 0, 0), 0, 1, true},
};

std::vector<Greeting> badGreetings(std::uint16_t uuid) {
    const std::string good = helloPacket(hello(uuid));
    return {
        {"another magic number", helloPacket({1, kVersion, kVersion, uuid}), 0},
        {"a version of the future", helloPacket({kMagic, kVersion + 1, kVersion + 1, uuid}), 0},
        {"another service", helloPacket(hello(static_cast<std::uint16_t>(uuid + 1))), 0},
        {"half a greeting", good.substr(0, 30), 0},
        {"more than a greeting", good + "x", 0},
        {"a request first", packet(header(FrameType::AsyncRequest, kFunction, 4), 4), 0},
        {"a descriptor with it", good, 1},
        {"a probe", helloPacket({kMagic, kVersion, kVersion, uuid, kHelloProbe}), 0},
    };
}
