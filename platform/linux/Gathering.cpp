#include "Gathering.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace nexnipc {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::microseconds kPause(20);
constexpr std::chrono::microseconds kLongestPause(600);
constexpr int kWeight = 32;  // some 100 frames after a long pause; one such pause does not end it
constexpr std::chrono::nanoseconds kDelay(500000);
constexpr std::uint32_t kLongestCopied = 2048;
constexpr std::uint32_t kLargestGathered = 4096;
constexpr unsigned kEnoughFrames = 32;
// A packet that the kernel keeps in 8 KiB: for larger ones it takes fresh pages each time, cold and slow to fill.
constexpr std::size_t kEnoughBytes = 7800;

struct Delivery {
    const Gatherer* side = nullptr;
    bool more = false;
};
thread_local Delivery current;

struct Stream {
    Clock::time_point last;
    Clock::duration pause = kLongestPause;
};
thread_local Stream stream;

}  // namespace

GatherScope::GatherScope(Gatherer& side) : side_(side) { current = Delivery{&side, false}; }

GatherScope::~GatherScope() {
    current = Delivery();
    side_.sendGathered();
}

void GatherScope::setMore(bool more) { current.more = more; }

bool GatherScope::delivers(const Gatherer& side) { return current.side == &side; }

bool GatherScope::hasMore(const Gatherer& side) { return current.side == &side && current.more; }

bool isStreaming(Clock::time_point& toPeer) {
    const Clock::time_point now = Clock::now();
    const Clock::duration pause = std::min<Clock::duration>(now - stream.last, kLongestPause);
    stream.pause += (pause - stream.pause) / kWeight;
    stream.last = now;
    // One event to many peers is a stream of its thread's; none of them has anything to wait for.
    const bool soon = now - std::exchange(toPeer, now) < kDelay;
    return soon && stream.pause < kPause;
}

void endSending() { stream.last = Clock::now(); }

bool wantsBuffer(const FrameHeader& header) { return inlineLength(header) > kLongestCopied; }

bool isGathered(const FrameHeader& header) { return inlineLength(header) <= kLargestGathered; }

bool isEnough(unsigned frames, std::size_t bytes, const FrameHeader& another) {
    return frames >= kEnoughFrames || aligned(bytes) + sizeof(another) + inlineLength(another) > kEnoughBytes;
}

bool GatherTimer::open() {
    if (timer_.valid()) return true;
    Fd timer(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    if (!timer.valid() || lane_.add(timer.get(), EPOLLIN, shared_from_this()) == 0) return false;
    timer_ = std::move(timer);
    return true;
}

bool GatherTimer::arm(std::shared_ptr<Gatherer> side) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!open()) return false;
    armed_.push_back(std::move(side));
    if (armed_.size() > 1) return true;
    itimerspec delay{};
    delay.it_value.tv_nsec = static_cast<long>(kDelay.count());
    ::timerfd_settime(timer_.get(), 0, &delay, nullptr);
    return true;
}

void GatherTimer::onReady(std::uint32_t, PacketBatch&) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        std::uint64_t times = 0;
        [[maybe_unused]] const ssize_t read = ::read(timer_.get(), &times, sizeof(times));
        due_.swap(armed_);
    }
    for (const auto& side : due_) side->onGatherTimer();
    due_.clear();
}

}  // namespace nexnipc
