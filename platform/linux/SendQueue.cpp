#include "SendQueue.h"

#include <fcntl.h>

#include <cerrno>
#include <iterator>
#include <utility>

namespace nexnipc {
namespace {

constexpr std::size_t kFrameCost = 128;
// A descriptor costs more than its bytes: the process has few. At most 64 stand in one queue.
constexpr std::size_t kDescriptorCost = 32U << 10;

}  // namespace

int SendQueue::push(const FrameHeader& header, const void* payload, int descriptor, bool isAnswer) {
    const std::size_t cost = kFrameCost + header.length + (descriptor >= 0 ? kDescriptorCost : 0);
    if (size_ + cost > (isAnswer ? kLimit : kEventLimit)) return -ENOBUFS;
    Fd own;
    if (descriptor >= 0) {
        own.reset(::fcntl(descriptor, F_DUPFD_CLOEXEC, 0));
        if (!own.valid()) return -errno;
    }
    if (budget_->fetch_add(cost) + cost > kServiceLimit) {
        budget_->fetch_sub(cost);
        return -ENOBUFS;
    }
    try {
        add(header, payload, std::move(own), cost);
    } catch (...) {
        budget_->fetch_sub(cost);
        throw;
    }
    size_ += cost;
    return 0;
}

void SendQueue::add(const FrameHeader& header, const void* payload, Fd descriptor, std::size_t cost) {
    const bool shared = sharesPacket(header.type) && !descriptor.valid();
    if (!shared || empty() || !packets_.back().shared || !packets_.back().content.fits(header)) {
        std::list<QueuedPacket> fresh = std::exchange(spare_, {});
        if (fresh.empty()) fresh.emplace_back();
        fresh.back().content.add(header, payload);
        packets_.splice(packets_.end(), fresh);
        packets_.back().descriptor = std::move(descriptor);
        packets_.back().shared = shared;
    } else {
        packets_.back().content.add(header, payload);
    }
    packets_.back().cost += cost;
}

int SendQueue::flush(const PacketSocket& socket) {
    while (!empty()) {
        const QueuedPacket& first = packets_.front();
        const PacketBuilder& content = first.content;
        const int status = socket.sendPacket(content.bytes(), content.size(), first.descriptor.get(), Wait::No);
        if (status != 0) return status;
        pop();
    }
    return 0;
}

void SendQueue::pop() {
    QueuedPacket& first = packets_.front();
    size_ -= first.cost;
    budget_->fetch_sub(first.cost);
    if (!spare_.empty()) return packets_.pop_front();
    first.content.clear();
    first.descriptor.reset();
    first.cost = 0;
    spare_.splice(spare_.end(), packets_, packets_.begin());
}

void SendQueue::clear() {
    while (!empty()) pop();
}

}  // namespace nexnipc
