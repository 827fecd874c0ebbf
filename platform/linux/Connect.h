#pragma once

#include <cstdint>

#include "PacketSocket.h"
#include "Trust.h"

namespace nexnipc {

// How long a request may wait for a service that does not read.
constexpr int kSendLimitMs = 3000;

// A finished handshake.
struct Connection {
    PacketSocket main;
    PacketSocket control;
    Peer peer;
    bool ownProcess = false;
    bool apart = false;  // the service may run on another processor than we
    std::int32_t serviceHandle = 0;
};

// Waits until the service is there, and connects; 0 or a negative errno. `userContext` tells one component's
// first attempt, which is given up soon, from its later ones.
int establish(std::uint16_t uuid, const void* userContext, Connection& connection);

}  // namespace nexnipc
