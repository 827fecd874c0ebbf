#pragma once

#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <memory>

#include "Fd.h"
#include "Frame.h"

namespace nexnipc {

enum class Wait { No, Yes };

// What carries frames, and the only place that knows how: a sequenced-packet socket. Thread-safe, since one
// send is one packet; the descriptor is closed with the object, until then a connection is ended by shutdown().
class PacketSocket {
public:
    PacketSocket() = default;
    explicit PacketSocket(Fd fd) : fd_(std::move(fd)) {}

    // Two connected sockets; 0 or a negative errno.
    static int pair(PacketSocket& first, PacketSocket& second);

    // 0 or a negative errno; -EAGAIN when it would have to wait (or, with Wait::Yes, waited its limit).
    int send(const FrameHeader& header, const void* payload, int descriptor, Wait wait) const;

    // One frame straight into the caller's memory. Returns the inline length, or a negative errno:
    // -ECONNRESET at the end, -EPROTO for what no frame can be, -EAGAIN as with send().
    int receiveInto(FrameHeader& header, void* payload, std::size_t capacity, Fd& descriptor,
                    Wait wait = Wait::Yes) const;

    void shutdown() const;
    void setSendLimit(int milliseconds) const;
    void setReceiveLimit(std::int64_t milliseconds) const;
    int fd() const { return fd_.get(); }
    bool valid() const { return fd_.valid(); }

private:
    Fd fd_;
};

// A frame that arrived. The payload is writable and stays until the batch is used again.
struct Packet {
    FrameHeader header;
    char* payload = nullptr;  // kInlineLimit bytes, of which header.length are the frame's
    Fd descriptor;
    bool descriptorLost = false;  // one came, but this process had no room for it

    // The payload is in the descriptor, being too long to be inline.
    bool outOfLine() const { return header.length > kInlineLimit; }
};

// Takes up to kCount packets from a socket with one system call, and checks what can be checked of any frame.
class PacketBatch {
public:
    static constexpr unsigned kCount = 16;
    struct Result {
        unsigned count = 0;  // good packets, also when the rest failed
        int status = 0;      // -EAGAIN: nothing there; -ECONNRESET: the end; -EPROTO: a bad one
    };

    PacketBatch();
    Result receive(const PacketSocket& socket, Wait wait);
    Packet& operator[](unsigned index) { return packets_[index]; }
    // Closes the descriptors that nobody took.
    void discard();

private:
    struct alignas(cmsghdr) Control {
        char bytes[CMSG_SPACE(sizeof(int))];
    };
    void prepare(unsigned index);
    bool accept(unsigned index, unsigned length);

    std::array<Packet, kCount> packets_;
    std::array<mmsghdr, kCount> messages_;
    std::array<std::array<iovec, 2>, kCount> vectors_;
    std::array<Control, kCount> controls_;
    std::unique_ptr<char[]> payloads_;
    unsigned used_ = kCount;
};

}  // namespace nexnipc
