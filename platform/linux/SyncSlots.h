#pragma once

#include <array>
#include <cstdint>
#include <mutex>

#include "Frame.h"
#include "PacketSocket.h"

namespace nexnipc {

// A service's ends of the channels over which one client takes its synchronous answers. A channel's number does not
// come back with the next channel in its slot, so that a late answer reaches nobody. Thread-safe.
class SyncSlots {
public:
    // Makes a channel; `theirs` is the client's end. Returns its number or a negative errno.
    int open(PacketSocket& theirs);
    // False when there is no such channel.
    bool close(std::uint32_t channel);
    // False for a number that no channel ever had.
    bool wasOpened(std::uint32_t channel);
    // An answer to a channel that is gone, or that its client does not read, is dropped: nobody waits for it.
    void reply(std::uint32_t channel, const FrameHeader& header, const void* payload, int descriptor);
    // Ends the wait of whoever waits on one of them.
    void shutdown();

private:
    struct Slot {
        PacketSocket socket;
        std::uint32_t openings = 0;
    };
    Slot* find(std::uint32_t channel);

    std::mutex mutex_;
    std::array<Slot, kChannelsPerClient> slots_;
};

}  // namespace nexnipc
