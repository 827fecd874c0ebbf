#pragma once

#include <atomic>
#include <cstddef>
#include <list>
#include <memory>

#include "PacketBuilder.h"
#include "PacketSocket.h"

namespace nexnipc {

// How much all queues of one service hold.
using QueueBudget = std::atomic<std::size_t>;

// Frames that a client did not take at once, or that are gathered for it, in order; small ones go many to a packet.
// Not thread-safe.
class SendQueue {
public:
    static constexpr std::size_t kLimit = 2U << 20;             // of one client
    static constexpr std::size_t kEventLimit = kLimit / 4 * 3;  // what events leave of it to answers
    static constexpr std::size_t kServiceLimit = 64U << 20;
    static constexpr std::size_t kHighMark = kLimit / 2;  // the client's requests are not read above this
    static constexpr std::size_t kLowMark = kLimit / 8;   // and read again below this

    explicit SendQueue(std::shared_ptr<QueueBudget> budget) : budget_(std::move(budget)) {}
    ~SendQueue() { clear(); }
    SendQueue(const SendQueue&) = delete;
    SendQueue& operator=(const SendQueue&) = delete;

    // Copies the frame; 0, -ENOBUFS, or why the descriptor could not be duplicated.
    int push(const FrameHeader& header, const void* payload, int descriptor, bool isAnswer);
    // Sends what goes; 0 when all went, -EAGAIN, or another negative errno.
    int flush(const PacketSocket& socket);
    void clear();

    bool empty() const { return packets_.empty(); }
    std::size_t size() const { return size_; }
    // All queues of the service together hold so much that one of them should not grow.
    bool isCrowded() const { return budget_->load() > kServiceLimit / 4 * 3; }
    // In the packet that the next frame may join.
    unsigned gatheredFrames() const { return empty() ? 0 : packets_.back().content.frames(); }
    std::size_t gatheredBytes() const { return empty() ? 0 : packets_.back().content.size(); }

private:
    struct QueuedPacket {
        PacketBuilder content;
        Fd descriptor;
        std::size_t cost = 0;
        bool shared = false;
    };
    void add(const FrameHeader& header, const void* payload, Fd descriptor, std::size_t cost);
    void pop();

    const std::shared_ptr<QueueBudget> budget_;
    std::list<QueuedPacket> packets_;
    std::list<QueuedPacket> spare_;  // one at most, so that a queue that comes and goes allocates nothing
    std::size_t size_ = 0;
};

}  // namespace nexnipc
