#pragma once

#include <array>
#include <cstdint>
#include <mutex>

#include "Frame.h"
#include "PacketSocket.h"

namespace nexnipc {

// A service's ends of the channels over which one client takes its synchronous answers. Thread-safe.
class SyncSlots {
public:
    // Makes a channel; `theirs` is the client's end. Returns its slot or a negative errno.
    int open(PacketSocket& theirs);
    // False when there is no such channel.
    bool close(std::uint32_t slot);
    // False for a slot that no channel ever had.
    bool wasOpened(std::uint32_t slot);
    // An answer to a channel that is gone, or that its client does not read, is dropped: nobody waits for it.
    void reply(std::uint32_t slot, const FrameHeader& header, const void* payload, int descriptor);
    // Ends the wait of whoever waits on one of them.
    void shutdown();

private:
    std::mutex mutex_;
    std::array<PacketSocket, kChannelsPerClient> slots_;
    std::size_t everOpened_ = 0;  // the lowest free slot is taken first
};

}  // namespace nexnipc
