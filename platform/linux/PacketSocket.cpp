#include "PacketSocket.h"

#include <sys/time.h>

#include <cerrno>
#include <cstring>

#include "Restart.h"

namespace nexnipc {
namespace {

// Takes ownership of every descriptor of a message; keeps the first. Returns how many there were.
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

timeval toTimeval(std::int64_t milliseconds) {
    timeval value{};
    value.tv_sec = static_cast<decltype(value.tv_sec)>(milliseconds / 1000);
    value.tv_usec = static_cast<decltype(value.tv_usec)>(milliseconds % 1000 * 1000);
    return value;
}

}  // namespace

int PacketSocket::pair(PacketSocket& first, PacketSocket& second) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return -errno;
    first = PacketSocket(Fd(ends[0]));
    second = PacketSocket(Fd(ends[1]));
    return 0;
}

int PacketSocket::send(const FrameHeader& header, const void* payload, int descriptor, Wait wait) const {
    iovec vectors[2] = {{const_cast<FrameHeader*>(&header), sizeof(header)},
                        {const_cast<void*>(payload), header.length > kInlineLimit ? 0 : header.length}};
    msghdr message{};
    message.msg_iov = vectors;
    message.msg_iovlen = payload == nullptr || vectors[1].iov_len == 0 ? 1 : 2;
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
    Restart restart(fd_.get(), SO_SNDTIMEO);
    for (;;) {
        if (::sendmsg(fd_.get(), &message, flags) >= 0) return 0;
        if (errno == EINTR) {
            if (restart.allowed()) continue;
            return -EAGAIN;
        }
        return errno == EPIPE || errno == ENOTCONN ? -ECONNRESET : -errno;
    }
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

void PacketSocket::shutdown() const { ::shutdown(fd_.get(), SHUT_RDWR); }

void PacketSocket::setSendLimit(int milliseconds) const {
    const timeval limit = toTimeval(milliseconds);
    ::setsockopt(fd_.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
}

void PacketSocket::setReceiveLimit(std::int64_t milliseconds) const {
    const timeval limit = toTimeval(milliseconds);
    ::setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
}

PacketBatch::PacketBatch() : messages_(), payloads_(new char[std::size_t{kCount} * kInlineLimit]) {
    for (unsigned i = 0; i < kCount; ++i) {
        packets_[i].payload = payloads_.get() + std::size_t{i} * kInlineLimit;
        vectors_[i] = {iovec{&packets_[i].header, sizeof(FrameHeader)}, iovec{packets_[i].payload, kInlineLimit}};
    }
}

void PacketBatch::discard() {
    for (unsigned i = 0; i < used_; ++i) packets_[i].descriptor.reset();
}

void PacketBatch::prepare(unsigned index) {
    packets_[index].descriptorLost = false;
    msghdr& message = messages_[index].msg_hdr;
    message = msghdr{};
    message.msg_iov = vectors_[index].data();
    message.msg_iovlen = vectors_[index].size();
    message.msg_control = controls_[index].bytes;
    message.msg_controllen = sizeof(controls_[index].bytes);
}

bool PacketBatch::accept(unsigned index, unsigned length) {
    Packet& packet = packets_[index];
    msghdr& message = messages_[index].msg_hdr;
    const unsigned count = adoptDescriptors(message, packet.descriptor);
    const bool cut = (message.msg_flags & MSG_CTRUNC) != 0;
    // Cut short with nothing received means that we are out of descriptors; cut short otherwise, too many came.
    if (count > 1 || (cut && count > 0)) return false;
    packet.descriptorLost = cut;
    if ((message.msg_flags & MSG_TRUNC) != 0 || length < sizeof(FrameHeader)) return false;
    const std::size_t inlineLength = length - sizeof(FrameHeader);
    return packet.outOfLine() ? inlineLength == 0 : inlineLength == packet.header.length;
}

PacketBatch::Result PacketBatch::receive(const PacketSocket& socket, Wait wait) {
    discard();
    for (unsigned i = 0; i < used_; ++i) prepare(i);
    used_ = 0;
    const int flags = MSG_CMSG_CLOEXEC | (wait == Wait::No ? MSG_DONTWAIT : MSG_WAITFORONE);
    int received = 0;
    // ECONNRESET says once that the peer left requests of ours unread; what it sent before is still there.
    do {
        received = ::recvmmsg(socket.fd(), messages_.data(), kCount, flags, nullptr);
    } while (received < 0 && (errno == EINTR || errno == ECONNRESET));
    Result result;
    if (received < 0) {
        result.status = -errno;
        return result;
    }
    used_ = static_cast<unsigned>(received);
    for (unsigned i = 0; i < used_; ++i) {
        const unsigned length = messages_[i].msg_len;
        const bool good = accept(i, length);
        if (result.status != 0) continue;
        if (length == 0) {
            result.status = -ECONNRESET;
        } else if (!good) {
            result.status = -EPROTO;
        } else {
            ++result.count;
        }
    }
    return result;
}

}  // namespace nexnipc
