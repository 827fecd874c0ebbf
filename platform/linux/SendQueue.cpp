#include "SendQueue.h"

#include <fcntl.h>

#include <cerrno>

namespace nexnipc {
namespace {

constexpr std::size_t kFrameCost = 128;
// A descriptor costs more than its bytes: the process has few. At most 64 stand in one queue.
constexpr std::size_t kDescriptorCost = 32U << 10;

}  // namespace

int SendQueue::push(const FrameHeader& header, const void* payload, int descriptor, bool isAnswer) {
    const std::size_t cost = kFrameCost + header.length + (descriptor >= 0 ? kDescriptorCost : 0);
    if (size_ + cost > (isAnswer ? kLimit : kEventLimit)) return -ENOBUFS;
    Frame frame{header, {}, Fd(), cost};
    const char* bytes = static_cast<const char*>(payload);
    if (header.length > 0) frame.payload.assign(bytes, bytes + header.length);
    if (descriptor >= 0) {
        frame.descriptor.reset(::fcntl(descriptor, F_DUPFD_CLOEXEC, 0));
        if (!frame.descriptor.valid()) return -errno;
    }
    if (budget_->fetch_add(cost) + cost > kServiceLimit) {
        budget_->fetch_sub(cost);
        return -ENOBUFS;
    }
    try {
        frames_.push_back(std::move(frame));
    } catch (...) {
        budget_->fetch_sub(cost);
        throw;
    }
    size_ += cost;
    return 0;
}

int SendQueue::flush(const PacketSocket& socket) {
    while (!frames_.empty()) {
        const Frame& frame = frames_.front();
        const int status = socket.send(frame.header, frame.payload.data(), frame.descriptor.get(), Wait::No);
        if (status != 0) return status;
        pop();
    }
    return 0;
}

void SendQueue::pop() {
    size_ -= frames_.front().cost;
    budget_->fetch_sub(frames_.front().cost);
    frames_.pop_front();
}

void SendQueue::clear() {
    while (!frames_.empty()) pop();
}

}  // namespace nexnipc
