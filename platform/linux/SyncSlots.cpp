#include "SyncSlots.h"

#include <algorithm>
#include <cerrno>

namespace nexnipc {
namespace {

// A number holds the slot and, in what is left of 31 bits, which of its channels it is.
constexpr std::uint32_t kGenerations = (1U << 31) / kChannelsPerClient;

}  // namespace

int SyncSlots::open(PacketSocket& theirs) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto unused =
        std::find_if(slots_.begin(), slots_.end(), [](const Slot& slot) { return !slot.socket.valid(); });
    if (unused == slots_.end()) return -EUSERS;
    if (const int status = PacketSocket::pair(unused->socket, theirs)) return status;
    unused->socket.refuse();  // We never read it.
    const std::uint32_t generation = unused->openings++ % kGenerations;
    return static_cast<int>(generation * kChannelsPerClient + static_cast<std::uint32_t>(unused - slots_.begin()));
}

bool SyncSlots::wasOpened(std::uint32_t channel) {
    std::lock_guard<std::mutex> lock(mutex_);
    return channel / kChannelsPerClient < slots_[channel % kChannelsPerClient].openings;
}

SyncSlots::Slot* SyncSlots::find(std::uint32_t channel) {
    Slot& slot = slots_[channel % kChannelsPerClient];
    const bool same = slot.socket.valid() && (slot.openings - 1) % kGenerations == channel / kChannelsPerClient;
    return same ? &slot : nullptr;
}

bool SyncSlots::close(std::uint32_t channel) {
    std::lock_guard<std::mutex> lock(mutex_);
    Slot* const slot = find(channel);
    if (slot != nullptr) slot->socket = PacketSocket();
    return slot != nullptr;
}

void SyncSlots::reply(std::uint32_t channel, const FrameHeader& header, const void* payload, int descriptor) {
    std::lock_guard<std::mutex> lock(mutex_);
    const Slot* const slot = find(channel);
    if (slot != nullptr) slot->socket.send(header, payload, descriptor, Wait::No);
}

void SyncSlots::shutdown() {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const Slot& slot : slots_) {
        if (slot.socket.valid()) slot.socket.shutdown();
    }
}

}  // namespace nexnipc
