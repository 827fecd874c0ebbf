#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <vector>

#include "Fd.h"
#include "Frame.h"
#include "Lane.h"

// A delivery thread that has further messages in hand gathers what its listener sends to the same peer, so that many
// small frames make one packet. They go when nothing is left in hand, or are enough for a packet, or when somebody else
// sends to that peer, whose frame comes after them. Should the listener take its time, a timer sends them.
// So does a thread of a service's that sends on and on, of whose pause only the timer knows.
namespace nexnipc {

// One side of a connection, as far as it gathers.
class Gatherer {
public:
    virtual void sendGathered() noexcept = 0;
    // Lane: the timer that was armed for it has run out.
    virtual void onGatherTimer() noexcept = 0;

protected:
    ~Gatherer() = default;
};

// Stands around the listener calls of a delivery thread for what it has in hand.
class GatherScope {
public:
    explicit GatherScope(Gatherer& side);
    ~GatherScope();
    GatherScope(const GatherScope&) = delete;
    GatherScope& operator=(const GatherScope&) = delete;

    // Whether there are further messages after the one that is delivered now.
    void setMore(bool more);

    // Of the calling thread: whether it delivers for that side, and has more in hand.
    static bool delivers(const Gatherer& side);
    static bool hasMore(const Gatherer& side);

private:
    Gatherer& side_;
};

// Tells that the calling thread has a frame to send: whether it has been sending one after the other for a while, and
// to this peer as well, which had the one before at that time.
bool isStreaming(std::chrono::steady_clock::time_point& toPeer);
// That it has sent one, which may have taken longer than any pause of a stream.
void endSending();

// Whether a frame that could be gathered had better leave its payload in a shared buffer.
bool wantsBuffer(const FrameHeader& header);
// Whether a frame is short enough to be gathered as it is, and whether a packet of that much should go rather than wait
// for another such frame.
bool isGathered(const FrameHeader& header);
bool isEnough(unsigned frames, std::size_t bytes, const FrameHeader& another);

// One for the process, on the lane.
class GatherTimer : public LaneSource, public std::enable_shared_from_this<GatherTimer> {
public:
    explicit GatherTimer(Lane& lane) : lane_(lane) {}

    // Calls onGatherTimer() in a short while. False when that cannot be.
    bool arm(std::shared_ptr<Gatherer> side);

    void onReady(std::uint32_t events, PacketBatch& scratch) override;
    void onAbandoned() noexcept override {}

private:
    bool open();

    Lane& lane_;
    std::mutex mutex_;  // taken before the lane's
    Fd timer_;
    std::vector<std::shared_ptr<Gatherer>> armed_;
    std::vector<std::shared_ptr<Gatherer>> due_;  // lane only
};

}  // namespace nexnipc
