#pragma once

#include <sys/socket.h>

#include <cstdint>

#include "Fd.h"
#include "Frame.h"

namespace nexnipc {

enum class Wait { No, Yes };

// What carries frames, and with PacketBatch the only place that knows how: a sequenced-packet socket. Thread-safe,
// since one send is one packet; the descriptor is closed with the object, until then a connection is ended by
// shutdown().
class PacketSocket {
public:
    PacketSocket() = default;
    explicit PacketSocket(Fd fd) : fd_(std::move(fd)) {}

    // Two connected sockets; 0 or a negative errno.
    static int pair(PacketSocket& first, PacketSocket& second);

    // One frame. 0 or a negative errno; -EAGAIN when it would have to wait (or, with Wait::Yes, waited its limit).
    int send(const FrameHeader& header, const void* payload, int descriptor, Wait wait) const;
    // A packet that is put together already, with a descriptor or -1.
    int sendPacket(const void* bytes, std::size_t size, int descriptor, Wait wait) const;

    // One frame straight into the caller's memory. Returns the inline length, or a negative errno:
    // -ECONNRESET at the end, -EPROTO for what no frame can be, -EAGAIN as with send().
    int receiveInto(FrameHeader& header, void* payload, std::size_t capacity, Fd& descriptor,
                    Wait wait = Wait::Yes) const;

    void shutdown() const;
    // The peer can send nothing any more, and leave nothing in it.
    void refuse() const;
    void setSendLimit(int milliseconds) const;
    void setReceiveLimit(std::int64_t milliseconds) const;
    int fd() const { return fd_.get(); }
    bool valid() const { return fd_.valid(); }
    // Whether it is what it has to be, when it came from the peer: shutdown() wakes nobody who waits on some others.
    bool isPacketSocket() const;

private:
    template <typename Send>
    int repeat(const Send& send) const;
    int sendParts(iovec* parts, unsigned count, int descriptor, Wait wait) const;

    Fd fd_;
};

// Takes ownership of every descriptor of a message; keeps the first. Returns how many there were.
unsigned adoptDescriptors(msghdr& message, Fd& first);

}  // namespace nexnipc
