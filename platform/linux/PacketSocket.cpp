#include "PacketSocket.h"

#include <sys/time.h>

#include <cerrno>
#include <cstring>

#include "Restart.h"

namespace nexnipc {
namespace {

// Up to this, copying costs less than having the kernel gather.
constexpr std::size_t kCopyLimit = sizeof(FrameHeader) + 1024;

timeval toTimeval(std::int64_t milliseconds) {
    timeval value{};
    value.tv_sec = static_cast<decltype(value.tv_sec)>(milliseconds / 1000);
    value.tv_usec = static_cast<decltype(value.tv_usec)>(milliseconds % 1000 * 1000);
    return value;
}

}  // namespace

unsigned adoptDescriptors(msghdr& message, Fd& first) {
    unsigned count = 0;
    for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr; part = CMSG_NXTHDR(&message, part)) {
        if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) continue;
        const std::size_t bytes = part->cmsg_len - CMSG_LEN(0);
        for (std::size_t at = 0; at + sizeof(int) <= bytes; at += sizeof(int)) {
            int raw = -1;
            std::memcpy(&raw, CMSG_DATA(part) + at, sizeof(raw));
            Fd descriptor(raw);
            if (count++ == 0) first = std::move(descriptor);
        }
    }
    return count;
}

int PacketSocket::pair(PacketSocket& first, PacketSocket& second) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return -errno;
    first = PacketSocket(Fd(ends[0]));
    second = PacketSocket(Fd(ends[1]));
    return 0;
}

template <typename Send>
int PacketSocket::repeat(const Send& send) const {
    Restart restart(fd_.get(), SO_SNDTIMEO);
    for (;;) {
        if (send() >= 0) return 0;
        if (errno == EINTR) {
            if (restart.allowed()) continue;
            return -EAGAIN;
        }
        return errno == EPIPE || errno == ENOTCONN ? -ECONNRESET : -errno;
    }
}

int PacketSocket::send(const FrameHeader& header, const void* payload, int descriptor, Wait wait) const {
    const std::size_t length = payload == nullptr ? 0 : inlineLength(header);
    const std::size_t size = sizeof(header) + length;
    if (descriptor < 0 && size <= kCopyLimit) {
        char packet[kCopyLimit];
        std::memcpy(packet, &header, sizeof(header));
        if (length > 0) std::memcpy(packet + sizeof(header), payload, length);
        return sendPacket(packet, size, -1, wait);
    }
    iovec parts[2] = {{const_cast<FrameHeader*>(&header), sizeof(header)}, {const_cast<void*>(payload), length}};
    return sendParts(parts, length == 0 ? 1 : 2, descriptor, wait);
}

int PacketSocket::sendPacket(const void* bytes, std::size_t size, int descriptor, Wait wait) const {
    if (descriptor >= 0) {
        iovec whole{const_cast<void*>(bytes), size};
        return sendParts(&whole, 1, descriptor, wait);
    }
    const int flags = MSG_NOSIGNAL | (wait == Wait::No ? MSG_DONTWAIT : 0);
    return repeat([&] { return ::send(fd_.get(), bytes, size, flags); });
}

int PacketSocket::sendParts(iovec* parts, unsigned count, int descriptor, Wait wait) const {
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = count;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    if (descriptor >= 0) {
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        cmsghdr* part = CMSG_FIRSTHDR(&message);
        part->cmsg_level = SOL_SOCKET;
        part->cmsg_type = SCM_RIGHTS;
        part->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(part), &descriptor, sizeof(int));
    }
    const int flags = MSG_NOSIGNAL | (wait == Wait::No ? MSG_DONTWAIT : 0);
    return repeat([&] { return ::sendmsg(fd_.get(), &message, flags); });
}

int PacketSocket::receiveInto(FrameHeader& header, void* payload, std::size_t capacity, Fd& descriptor,
                              Wait wait) const {
    iovec vectors[2] = {{&header, sizeof(header)}, {payload, capacity}};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    msghdr message{};
    message.msg_iov = vectors;
    message.msg_iovlen = capacity == 0 ? 1 : 2;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    Restart restart(fd_.get(), SO_RCVTIMEO);
    const int flags = MSG_CMSG_CLOEXEC | (wait == Wait::No ? MSG_DONTWAIT : 0);
    ssize_t length = ::recvmsg(fd_.get(), &message, flags);
    while (length < 0) {
        if (errno != EINTR) return -errno;
        if (!restart.allowed()) return -EAGAIN;
        length = ::recvmsg(fd_.get(), &message, flags);
    }
    const unsigned count = adoptDescriptors(message, descriptor);  // which an empty packet may bring as well
    if (length == 0) return -ECONNRESET;
    const bool lost = (message.msg_flags & MSG_CTRUNC) != 0;
    if (lost && count == 0) return -EMFILE;
    if (lost || count > 1 || (message.msg_flags & MSG_TRUNC) != 0) return -EPROTO;
    if (static_cast<std::size_t>(length) < sizeof(header)) return -EPROTO;
    return static_cast<int>(static_cast<std::size_t>(length) - sizeof(header));
}

bool PacketSocket::isPacketSocket() const {
    int domain = 0;
    int type = 0;
    socklen_t size = sizeof(domain);
    if (::getsockopt(fd_.get(), SOL_SOCKET, SO_DOMAIN, &domain, &size) != 0 || domain != AF_UNIX) return false;
    return ::getsockopt(fd_.get(), SOL_SOCKET, SO_TYPE, &type, &size) == 0 && type == SOCK_SEQPACKET;
}

void PacketSocket::shutdown() const { ::shutdown(fd_.get(), SHUT_RDWR); }

void PacketSocket::refuse() const { ::shutdown(fd_.get(), SHUT_RD); }

void PacketSocket::setSendLimit(int milliseconds) const {
    const timeval limit = toTimeval(milliseconds);
    ::setsockopt(fd_.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
}

void PacketSocket::setReceiveLimit(std::int64_t milliseconds) const {
    const timeval limit = toTimeval(milliseconds);
    ::setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
}

}  // namespace nexnipc
