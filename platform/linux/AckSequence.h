#pragma once

#include <atomic>
#include <cerrno>
#include <cstdint>

#include "RegionPool.h"

namespace nexnipc {

// Ties an acknowledgement to its transfer: of the shares sent over one connection only the latest can be
// acknowledged, and once. Its region is then free to be used again.
class AckSequence {
public:
    explicit AckSequence(const Peer& peer) : toTheOne_(RegionPool::get().meet(peer)) {}
    ~AckSequence() { RegionPool::get().part(this); }
    AckSequence(const AckSequence&) = delete;
    AckSequence& operator=(const AckSequence&) = delete;

    // The number of a share that is about to be sent; 0, or -ESTALE for a region that this peer must not see.
    int next(int region, std::uint32_t& number) {
        number = ++last_;
        if (number == 0) number = ++last_;
        if (!RegionPool::get().share(region, this, number, toTheOne_)) return -ESTALE;
        awaited_ = number;
        return 0;
    }
    // The share was not sent.
    void cancel(std::uint32_t number) {
        awaited_.compare_exchange_strong(number, 0);
        RegionPool::get().abandon(this);
    }
    // Whether an acknowledgement is the one awaited.
    bool accept(std::uint32_t number) {
        std::uint32_t expected = number;
        if (number == 0 || !awaited_.compare_exchange_strong(expected, 0)) return false;
        RegionPool::get().acknowledged(this, number);
        return true;
    }

    // The other direction: the share that was last delivered, which an acknowledgement of ours answers.
    void setDelivered(std::uint32_t number) { delivered_ = number; }
    std::uint32_t delivered() const { return delivered_; }

private:
    const bool toTheOne_;
    std::atomic<std::uint32_t> last_{0};
    std::atomic<std::uint32_t> awaited_{0};
    std::atomic<std::uint32_t> delivered_{0};
};

}  // namespace nexnipc
