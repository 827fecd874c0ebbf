#include "PacketBatch.h"

#include <cerrno>
#include <cstring>

namespace nexnipc {
namespace {

// Asking for many packets costs a little even if there is but one: it is done while they come in numbers, and every
// so often to see whether they do.
constexpr unsigned kSinglesInARow = 8;

}  // namespace

PacketBatch::PacketBatch() : messages_(), vectors_(), bytes_(new char[kCount * kStride]) {
    for (unsigned i = 0; i < kCount; ++i) {
        vectors_[i] = iovec{bytes_.get() + i * kStride + 8, kPacketLimit};
        prepare(i);
    }
}

void PacketBatch::discard() {
    frame_.descriptor.reset();
    for (unsigned i = current_; i < received_; ++i) arrivals_[i].descriptor.reset();
    received_ = current_ = 0;
    offset_ = 0;
}

bool PacketBatch::hasDescriptors() const {
    for (unsigned i = current_; i < received_; ++i) {
        if (arrivals_[i].descriptor.valid()) return true;
    }
    return frame_.descriptor.valid();
}

void PacketBatch::prepare(unsigned index) {
    msghdr& message = messages_[index].msg_hdr;
    message = msghdr{};
    message.msg_iov = &vectors_[index];
    message.msg_iovlen = 1;
    message.msg_control = controls_[index].bytes;
    message.msg_controllen = sizeof(controls_[index].bytes);
}

void PacketBatch::accept(unsigned index, std::size_t length) {
    Arrival& arrival = arrivals_[index];
    msghdr& message = messages_[index].msg_hdr;
    const unsigned count = adoptDescriptors(message, arrival.descriptor);
    // Cut short with nothing received means that we are out of descriptors; cut short otherwise, too many came.
    const bool cut = (message.msg_flags & MSG_CTRUNC) != 0;
    arrival.length = length;
    arrival.lost = cut && count == 0;
    arrival.good = count <= 1 && !(cut && count > 0) && (message.msg_flags & MSG_TRUNC) == 0;
    prepare(index);
}

int PacketBatch::receiveSome(const PacketSocket& socket, int flags) {
    if (singles_ < kSinglesInARow) {
        const ssize_t length = ::recvmsg(socket.fd(), &messages_[0].msg_hdr, flags);
        if (length < 0) return -1;
        ++singles_;
        messages_[0].msg_len = static_cast<unsigned>(length);
        return 1;
    }
    const int count = ::recvmmsg(socket.fd(), messages_.data(), kCount, flags | MSG_WAITFORONE, nullptr);
    if (count == 1) singles_ = 0;
    return count;
}

int PacketBatch::receive(const PacketSocket& socket, Wait wait) {
    discard();
    const int flags = MSG_CMSG_CLOEXEC | (wait == Wait::No ? MSG_DONTWAIT : 0);
    int count = 0;
    // ECONNRESET says once that the peer left requests of ours unread; what it sent before is still there.
    do {
        count = receiveSome(socket, flags);
    } while (count < 0 && (errno == EINTR || errno == ECONNRESET));
    status_ = count < 0 ? -errno : 0;
    if (count < 0) return status_;
    received_ = static_cast<unsigned>(count);
    for (unsigned i = 0; i < received_; ++i) accept(i, messages_[i].msg_len);
    return 0;
}

Packet* PacketBatch::next() {
    frame_.descriptor.reset();
    if (!more()) return nullptr;
    Arrival& arrival = arrivals_[current_];
    if (arrival.length == 0) {
        status_ = -ECONNRESET;
    } else if (!arrival.good || !take(arrival)) {
        status_ = -EPROTO;
    }
    return status_ == 0 ? &frame_ : nullptr;
}

bool PacketBatch::take(Arrival& arrival) {
    const std::size_t left = arrival.length - offset_;
    if (left < sizeof(FrameHeader)) return false;
    char* const start = bytes_.get() + current_ * kStride + 8 + offset_;
    std::memcpy(&frame_.header, start, sizeof(FrameHeader));
    const std::size_t size = sizeof(FrameHeader) + inlineLength(frame_.header);
    if (size > left) return false;
    frame_.payload = start + sizeof(FrameHeader);
    frame_.descriptor = std::move(arrival.descriptor);
    frame_.descriptorLost = arrival.lost;
    const bool last = size == left;
    const bool alone = last && offset_ == 0;
    if (!alone && (!sharesPacket(frame_.header.type) || frame_.outOfLine() || frame_.hasDescriptor())) return false;
    offset_ = last ? 0 : offset_ + aligned(size);
    if (last) ++current_;
    return last || offset_ < arrival.length;
}

}  // namespace nexnipc
