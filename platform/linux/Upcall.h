#pragma once

#include <cstdint>

#include "CallGate.h"
#include "nex_nipc.h"

namespace nexnipc {

// One call of a listener: what it is told, and what it leaves in length and status.
struct Call {
    std::uint32_t type = INVALID;
    std::uint16_t peerId = 0;
    std::uint16_t functionId = 0;
    std::uint16_t eventId = 0;
    std::uint32_t length = 0;
    std::int32_t status = 0;
    void* data = nullptr;
    std::uint64_t context = 0;

    static Call event(std::uint16_t eventId, std::uint16_t peerId);
};

// The listener of one handle, and the gate in front of it.
class Upcall {
public:
    Upcall(nexNipc_listener_t listener, void* userContext) : listener_(listener), userContext_(userContext) {}

    // False when the handle takes no calls any more.
    bool run(Call& call);

    CallGate gate;

private:
    const nexNipc_listener_t listener_;
    void* const userContext_;
};

}  // namespace nexnipc
