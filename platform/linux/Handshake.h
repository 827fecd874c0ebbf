#pragma once

#include <cstdint>

#include "Fd.h"
#include "Frame.h"
#include "PacketSocket.h"
#include "Trust.h"

namespace nexnipc {

// What a service says of itself. The control socket comes unless this was a probe.
struct Greeting {
    Peer peer;
    Welcome welcome;
    Fd control;
};

// Says Hello on a fresh connection and waits, not long, for the Welcome; 0 or a negative errno. `flags` are
// HelloFlags.
int shakeHands(const PacketSocket& socket, std::uint16_t uuid, std::uint16_t flags, Greeting& greeting);

}  // namespace nexnipc
