#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>

#include "AckSequence.h"
#include "Gathering.h"
#include "Lane.h"
#include "PacketBatch.h"
#include "SendQueue.h"
#include "ShareFrame.h"
#include "SharedBuffers.h"
#include "SyncSlots.h"
#include "Trust.h"

namespace nexnipc {

class Service;

// One client of a service. Its sockets are closed with the last reference; until then shutdown() ends it at once,
// or the client does by closing, after what it has sent. The delivery thread of the service, which finds the main
// socket at its end, takes it out.
class Session final : public Gatherer, public std::enable_shared_from_this<Session> {
public:
    Session(std::uint16_t id, Peer peer, PacketSocket main, PacketSocket control, Lane& lane,
            std::shared_ptr<QueueBudget> budget, std::weak_ptr<Service> service, bool spins);

    // Starts to serve the control socket; 0 or a negative errno. Lane only.
    int attach();

    // Any thread; none of them blocks, but that the delivery thread gives a client a moment to take a long answer.
    int send(FrameHeader header, const void* payload, bool isAnswer);
    int share(OutgoingShare& share);
    int acknowledge();
    void shutdown();
    // Lane: the client takes nothing any more. What it has sent is delivered, then it is at its end.
    void letLeave();
    // Lets go of one that was shut down. The lane closes its sockets and frees its queue, which may take a millisecond.
    static void release(std::shared_ptr<Session> session);
    void sendGathered() noexcept override;
    void onGatherTimer() noexcept override;

    // Delivery thread: true when so much is queued for the client that its requests had better wait. The
    // service is told when to go on.
    bool holdReading();
    // Delivery thread: a synchronous request is being served.
    void setServed(std::uint32_t channel, std::uint32_t call);

    const std::uint16_t id;
    const Peer peer;
    const bool apart;  // it may run on another processor than we
    const PacketSocket main;
    SyncSlots slots;
    AckSequence acks;
    unsigned channels = 0;                  // the service's to count
    ReceiveBuffers incomingBuffers;         // delivery thread
    std::unique_ptr<PacketBatch> unserved;  // delivery thread: what was read before its requests had to wait
    std::atomic<bool> closed{false};

private:
    void onControl(PacketBatch& scratch);
    bool readControl(PacketBatch& scratch);
    bool handleControl(const Packet& packet);
    bool openChannel();
    void urged(std::uint32_t channel, std::uint32_t call);
    void onWritable();
    int sendNow(const FrameHeader& header, const void* payload, int descriptor) const;
    int sendLocked(const FrameHeader& header, const void* payload, int descriptor, bool isAnswer, bool gather);
    bool gathers(FrameHeader& header, const void* payload, bool isAnswer);
    int flushGathered() noexcept;
    bool isOver() const { return closed || leaving_; }
    bool awaitRoom() const;
    int watchWritable();
    void unwatchWritable();

    const PacketSocket control_;
    Lane& lane_;
    const std::weak_ptr<Service> service_;
    std::uint64_t controlSource_ = 0;

    std::mutex sendMutex_;  // taken before the lane's
    SendQueue queue_;
    SendBuffers buffers_;
    std::uint64_t writableSource_ = 0;
    bool leaving_ = false;  // takes nothing any more
    bool held_ = false;     // its requests are not read
    bool urged_ = false;    // they must be, until this call is served
    std::uint32_t urgedCall_ = 0;
    std::array<std::uint32_t, kChannelsPerClient> served_{};  // the latest call of each channel
    std::chrono::steady_clock::time_point latest_;            // when it was last looked whether its frames are a stream
    bool timed_ = false;                                      // the timer will look for gathered frames
};

}  // namespace nexnipc
