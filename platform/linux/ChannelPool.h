#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "PacketSocket.h"
#include "Spin.h"

namespace nexnipc {

// One caller's way to its own synchronous answers.
struct Channel {
    PacketSocket socket;
    std::uint32_t number = 0;
    Spin spin;
};

// The channels of one connection: opened when a caller finds none free, kept for the next. Thread-safe.
class ChannelPool {
public:
    ChannelPool(const PacketSocket& control, std::int64_t timeoutMs, std::chrono::microseconds spinLimit);

    // Waits until one is free; 0 or a negative errno.
    int take(Channel*& channel);
    // A channel on which an answer may still come is not used again.
    void giveBack(Channel* channel, bool clean);
    // Lane: the service's answer to a request for a channel. False when none was asked for.
    bool opened(std::uint32_t number, int status, PacketSocket socket);
    // The connection is over: ends every wait.
    void shut();

private:
    int waitForOne(std::unique_lock<std::mutex>& lock, std::chrono::steady_clock::time_point deadline);
    int send(FrameType type, std::uint32_t number) const;

    const PacketSocket& control_;
    const std::int64_t timeoutMs_;
    const std::chrono::microseconds spinLimit_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::unique_ptr<Channel>> channels_;
    std::vector<Channel*> free_;
    unsigned opening_ = 0;
    unsigned waiting_ = 0;
    unsigned refusals_ = 0;
    int lastRefusal_ = 0;
    bool shut_ = false;
};

}  // namespace nexnipc
