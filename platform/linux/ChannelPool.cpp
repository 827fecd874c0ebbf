#include "ChannelPool.h"

#include <algorithm>
#include <cerrno>

#include "Lane.h"

namespace nexnipc {

ChannelPool::ChannelPool(const PacketSocket& control, std::int64_t timeoutMs, std::chrono::microseconds spinLimit)
    : control_(control), timeoutMs_(timeoutMs), spinLimit_(spinLimit) {
    channels_.reserve(kChannelsPerClient);
    free_.reserve(kChannelsPerClient);
}

int ChannelPool::take(Channel*& channel) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (free_.empty() && !shut_) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs_);
        while (free_.empty() && !shut_) {
            if (const int status = waitForOne(lock, deadline)) return status;
        }
    }
    if (shut_) return -ECONNRESET;
    channel = free_.back();
    free_.pop_back();
    return 0;
}

int ChannelPool::waitForOne(std::unique_lock<std::mutex>& lock, std::chrono::steady_clock::time_point deadline) {
    // The lane itself would have to receive the channel.
    if (Lane::isCurrentThread()) return -EDEADLK;
    if (channels_.size() + opening_ < kChannelsPerClient && opening_ <= waiting_) {
        const int status = send(FrameType::OpenChannel, 0);
        if (status != 0 && channels_.empty()) return status;
        if (status == 0) ++opening_;
    }
    const unsigned refusals = refusals_;
    const auto ready = [this] { return shut_ || !free_.empty() || (channels_.empty() && opening_ == 0); };
    bool inTime = true;
    ++waiting_;
    if (timeoutMs_ > 0) {
        inTime = changed_.wait_until(lock, deadline, ready);
    } else {
        changed_.wait(lock, ready);
    }
    --waiting_;
    if (!inTime) return -ETIMEDOUT;
    const bool refused = refusals_ != refusals && channels_.empty() && !shut_;
    return refused ? lastRefusal_ : 0;
}

void ChannelPool::giveBack(Channel* channel, bool clean) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (clean) {
        free_.push_back(channel);
    } else {
        send(FrameType::CloseChannel, channel->number);
        const auto found = std::find_if(channels_.begin(), channels_.end(),
                                        [channel](const auto& owned) { return owned.get() == channel; });
        channels_.erase(found);
    }
    // With an unclean one gone, whoever waits may have to find out that none is left.
    if (waiting_ > 0) changed_.notify_all();
}

bool ChannelPool::opened(std::uint32_t number, int status, PacketSocket socket) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (opening_ == 0 || (status == 0) != socket.valid() || status > 0) return false;
    if (status == 0 && !socket.isPacketSocket()) return false;
    --opening_;
    if (status != 0) {
        lastRefusal_ = status;
        ++refusals_;
    } else {
        if (timeoutMs_ > 0) socket.setReceiveLimit(timeoutMs_);
        channels_.push_back(std::make_unique<Channel>(Channel{std::move(socket), number, Spin(spinLimit_)}));
        free_.push_back(channels_.back().get());
        if (shut_) channels_.back()->socket.shutdown();
    }
    changed_.notify_all();
    return true;
}

void ChannelPool::shut() {
    std::lock_guard<std::mutex> lock(mutex_);
    shut_ = true;
    for (const auto& channel : channels_) channel->socket.shutdown();
    changed_.notify_all();
}

int ChannelPool::send(FrameType type, std::uint32_t number) const {
    FrameHeader header;
    header.type = type;
    header.sequence = number;
    return control_.send(header, nullptr, -1, Wait::No);
}

}  // namespace nexnipc
