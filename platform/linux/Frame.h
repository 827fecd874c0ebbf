#pragma once

#include <cstddef>
#include <cstdint>

#include "nex_nipc.h"

// What goes over the sockets: packets of one frame, a header and at most kInlineLimit bytes, or of several small
// ones. Both ends run on one machine, so integers are in host order. README.md shows the fields of every type.
namespace nexnipc {

constexpr std::uint32_t kInlineLimit = 16384;
constexpr std::uint32_t kMetadataLimit = 64;
constexpr std::uint32_t kShareLimit = 5U << 20;  // what a shared region's metadata may claim
constexpr std::uint32_t kChannelsPerClient = 128;
constexpr std::uint32_t kMagic = 0x4350494e;
constexpr std::uint16_t kVersion = 2;

enum class FrameType : std::uint16_t {
    Hello = 1,           // client: a Hello
    Welcome = 2,         // service: a Welcome; with status 0 the control socket's descriptor
    AsyncRequest = 3,    // main socket, to the service
    SyncRequest = 4,     // main socket, to the service
    Share = 5,           // main socket, both directions
    Callback = 6,        // main socket, to the client
    SyncReply = 7,       // channel, to the client
    Ack = 8,             // control socket, both directions
    OpenChannel = 9,     // control socket, to the service
    ChannelOpened = 10,  // control socket, to the client
    CloseChannel = 11,   // control socket, to the service
    Urge = 12,           // control socket, to the service
    Buffers = 13,        // main socket, both directions
    Announce = 14,       // main socket, both directions: a share will follow
};

struct FrameHeader {
    FrameType type = FrameType::Hello;
    std::uint16_t functionId = 0;
    std::uint32_t length = 0;    // of the payload, wherever it travels
    std::uint64_t context = 0;   // request context; SyncRequest: capacity of the answer; SyncReply: an errno
    std::uint32_t sequence = 0;  // of a share or a synchronous request; number of a channel
    std::int32_t status = 0;     // SyncRequest: number of the channel that the answer goes to;
                                 // AsyncRequest, Callback: of the shared buffer with the payload, from 1, or 0
};

static_assert(offsetof(FrameHeader, functionId) == 2);
static_assert(offsetof(FrameHeader, length) == 4);
static_assert(offsetof(FrameHeader, context) == 8);
static_assert(offsetof(FrameHeader, sequence) == 16);
static_assert(offsetof(FrameHeader, status) == 20);
static_assert(sizeof(FrameHeader) == 24);

// Of all packets. Frames after the first begin at multiples of kFrameAlignment.
constexpr std::size_t kPacketLimit = sizeof(FrameHeader) + kInlineLimit;
constexpr std::size_t kFrameAlignment = 16;

constexpr std::size_t aligned(std::size_t offset) {
    return (offset + kFrameAlignment - 1) / kFrameAlignment * kFrameAlignment;
}

// Whether a frame may stand in a packet with others of its kind.
inline bool sharesPacket(FrameType type) { return type == FrameType::AsyncRequest || type == FrameType::Callback; }

// Whether its payload is in a shared buffer.
inline bool isBuffered(const FrameHeader& header) { return header.status != 0 && sharesPacket(header.type); }

// What of the payload stands behind the header.
inline std::uint32_t inlineLength(const FrameHeader& header) {
    return isBuffered(header) || header.length > kInlineLimit ? 0 : header.length;
}

// Functions that no ordinary frame carries: those of Share and Ack.
inline bool hasOwnFrame(std::uint16_t functionId) {
    return functionId == CLIENT_SHARE_FD_ID || functionId == SERVER_SHARE_FD_ID ||
           functionId == CLIENT_FD_PROCESSING_COMPLETED_ID || functionId == SERVER_FD_PROCESSING_COMPLETED_ID;
}

enum HelloFlags : std::uint16_t {
    kHelloProbe = 1,  // asks who is there and goes away; the service does not see a client
};

struct Hello {
    std::uint32_t magic = kMagic;
    std::uint16_t minVersion = kVersion;
    std::uint16_t maxVersion = kVersion;
    std::uint16_t uuid = 0;
    std::uint16_t flags = 0;
};
static_assert(sizeof(Hello) == 12);

struct Welcome {
    std::uint32_t magic = kMagic;
    std::uint16_t version = 0;
    std::uint16_t clientId = 0;
    std::int32_t pid = 0;
    std::int32_t serviceHandle = 0;
    std::uint64_t startedAt = 0;  // seconds since 1970
    std::uint32_t uid = 0;
    std::uint32_t clients = 0;
};
static_assert(offsetof(Welcome, startedAt) == 16 && sizeof(Welcome) == 32);

}  // namespace nexnipc
