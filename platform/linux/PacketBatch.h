#pragma once

#include <array>
#include <memory>

#include "PacketSocket.h"

namespace nexnipc {

// A frame that arrived. The payload is writable and stays until the batch is used again; one that was fetched from a
// shared buffer, until the next is.
struct Packet {
    FrameHeader header;
    char* payload = nullptr;  // header.length bytes; kInlineLimit of them where the frame has its packet to itself
    Fd descriptor;
    bool descriptorLost = false;  // one came, but this process had no room for it

    // The payload is in the descriptor, being too long to be inline.
    bool outOfLine() const { return header.length > kInlineLimit; }
    bool hasDescriptor() const { return descriptor.valid() || descriptorLost; }
    // All it says is its type, and what type needs of sequence and status.
    bool isBare() const { return header.functionId == 0 && header.length == 0 && !hasDescriptor(); }
};

// Takes packets from a socket, many with one system call where many are waiting, and checks what can be checked of
// any frame.
class PacketBatch {
public:
    PacketBatch();

    // 0 when there is something to look at, the end included; -EAGAIN or another negative errno otherwise.
    int receive(const PacketSocket& socket, Wait wait);
    // The next frame, until the following call; null when no good one is left, and status() says why.
    Packet* next();
    // Whether next() has at least another packet or frame to look at.
    bool more() const { return status_ == 0 && current_ < received_; }
    // Whether it holds descriptors that nobody has taken.
    bool hasDescriptors() const;
    // 0: all frames were good; -ECONNRESET: the end came after them; -EPROTO: a bad one; or of receive().
    int status() const { return status_; }
    // Closes the descriptors that nobody took.
    void discard();

private:
    static constexpr unsigned kCount = 16;
    // Between calls; a payload right behind its packet's first header is aligned for anything.
    static constexpr std::size_t kStride = aligned(kPacketLimit + 8);

    struct alignas(cmsghdr) Control {
        char bytes[CMSG_SPACE(sizeof(int))];
    };
    struct Arrival {
        std::size_t length = 0;
        Fd descriptor;
        bool lost = false;
        bool good = false;
    };
    void prepare(unsigned index);
    void accept(unsigned index, std::size_t length);
    int receiveSome(const PacketSocket& socket, int flags);
    bool take(Arrival& arrival);

    std::array<mmsghdr, kCount> messages_;
    std::array<iovec, kCount> vectors_;
    std::array<Control, kCount> controls_;
    std::array<Arrival, kCount> arrivals_;
    std::unique_ptr<char[]> bytes_;
    Packet frame_;
    unsigned received_ = 0;
    unsigned current_ = 0;    // of arrivals_, the one that is being looked at,
    std::size_t offset_ = 0;  // from here on
    int status_ = 0;
    unsigned singles_ = 0;  // how often in a row one packet was asked for
};

}  // namespace nexnipc
