#pragma once

#include <cstdint>
#include <memory>

#include "Fd.h"
#include "PacketBatch.h"
#include "PacketSocket.h"

namespace nexnipc {

// Memory that the sender of a stream shares with its receiver, in buffers of one payload each. Frames that are too long
// to stand in a packet with others then do so without their payloads, and name the buffers that hold them: two copies
// by the processes instead of two by the kernel, and one system call for many.
class SharedBuffers {
public:
    static constexpr unsigned kCount = 64;

    SharedBuffers() = default;
    ~SharedBuffers();
    SharedBuffers(const SharedBuffers&) = delete;
    SharedBuffers& operator=(const SharedBuffers&) = delete;

    static int make(Fd& region);
    // 0; -EPROTO when it is no such memory; or another negative errno.
    int map(int region);
    bool mapped() const { return control_ != nullptr; }

    // By the receiver, once it has mapped them: none is used before.
    void setReady();
    bool isReady() const;
    void release(unsigned number);
    // A bit for each that was released since the last time.
    std::uint64_t takeReleased();
    char* at(unsigned number) const;

private:
    struct Control;
    Control* control_ = nullptr;
};

// The sender's side. Not thread-safe.
class SendBuffers {
public:
    ~SendBuffers();
    // Puts the payload into a buffer, whose number it writes into the header. False when that cannot be: the receiver
    // has none, which it is offered when many such frames were to be sent, or has not released any.
    bool put(FrameHeader& header, const void* payload, const PacketSocket& socket);
    // They have been: before, who does not read what is sent need not be asked.
    bool offered() const { return state_ == State::Offered; }
    // Takes back what was put for a frame that does not go.
    void cancel(const FrameHeader& header);

private:
    enum class State { None, Made, Offered, Impossible };

    bool offer(const PacketSocket& socket);
    State make();

    State state_ = State::None;
    unsigned wanted_ = 0;
    bool counted_ = false;
    Fd region_;  // until it is offered
    SharedBuffers memory_;
    std::uint64_t free_ = ~std::uint64_t{0};
};

// The receiver's side. Not thread-safe.
class ReceiveBuffers {
public:
    ~ReceiveBuffers();
    // Takes what is offered, or does without it. False when the frame may not be.
    bool adopt(const Packet& packet);
    // Copies the payload of a frame, as the sender can still change it, and releases its buffer. False when the frame
    // may not be.
    bool fetch(Packet& packet);

private:
    bool offered_ = false;
    bool counted_ = false;
    SharedBuffers memory_;
    std::unique_ptr<char[]> copy_;
};

}  // namespace nexnipc
