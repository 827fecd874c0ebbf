#include "SyncSlots.h"

#include <algorithm>
#include <cerrno>

namespace nexnipc {

int SyncSlots::open(PacketSocket& theirs) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto unused = std::find_if(slots_.begin(), slots_.end(), [](const auto& slot) { return !slot.valid(); });
    if (unused == slots_.end()) return -EUSERS;
    if (const int status = PacketSocket::pair(*unused, theirs)) return status;
    const auto slot = static_cast<std::size_t>(unused - slots_.begin());
    everOpened_ = std::max(everOpened_, slot + 1);
    return static_cast<int>(slot);
}

bool SyncSlots::wasOpened(std::uint32_t slot) {
    std::lock_guard<std::mutex> lock(mutex_);
    return slot < everOpened_;
}

bool SyncSlots::close(std::uint32_t slot) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (slot >= slots_.size() || !slots_[slot].valid()) return false;
    slots_[slot] = PacketSocket();
    return true;
}

void SyncSlots::reply(std::uint32_t slot, const FrameHeader& header, const void* payload, int descriptor) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (slots_[slot].valid()) slots_[slot].send(header, payload, descriptor, Wait::No);
}

void SyncSlots::shutdown() {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const PacketSocket& slot : slots_) {
        if (slot.valid()) slot.shutdown();
    }
}

}  // namespace nexnipc
