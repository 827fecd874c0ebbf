#pragma once

#include <array>
#include <cstdint>

#include "PacketBatch.h"
#include "nex_nipc.h"

namespace nexnipc {

// What of a ShareFdMsg travels: at most one descriptor, and the metadata's bytes.
struct OutgoingShare {
    FrameHeader header;
    const void* metadata = nullptr;
    int descriptor = -1;
    bool isAnswer = false;  // to a request, as its metadata says

    // 0, -EINVAL or -EMSGSIZE.
    int take(const ShareFdMsg* message);
};

// A share frame as the listener sees it. Whatever is not handed over is closed with the object.
class IncomingShare {
public:
    explicit IncomingShare(Packet& packet);

    ShareFdMsg* message() { return &message_; }
    // To be called when the listener has run: a descriptor that came with good metadata is now its own.
    void delivered();

private:
    Fd descriptor_;
    std::int32_t raw_ = -1;
    bool belongsToListener_ = false;
    alignas(8) std::array<char, kMetadataLimit> metadata_{};
    ShareFdMsg message_{};
};

}  // namespace nexnipc
