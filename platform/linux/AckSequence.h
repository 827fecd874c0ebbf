#pragma once

#include <atomic>
#include <cerrno>
#include <cstdint>

#include "PacketSocket.h"
#include "RegionPool.h"

namespace nexnipc {

// Ties an acknowledgement to its transfer: of the shares sent over one connection only the latest can be
// acknowledged, and once. Its region is then free to be used again.
class AckSequence final : public RegionUser {
public:
    // `main` outlives it. It is announced there that a region is being filled, unless waking the peer does not pay.
    AckSequence(const Peer& peer, const PacketSocket& main, bool announces)
        : main_(main), announces_(announces), toTheOne_(RegionPool::get().meet(peer)) {}
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

    void announce() const noexcept override {
        if (!announces_) return;
        FrameHeader header;
        header.type = FrameType::Announce;
        main_.send(header, nullptr, -1, Wait::No);
    }

    // The other direction: the share that was last delivered, which an acknowledgement of ours answers.
    void setDelivered(std::uint32_t number) { delivered_ = number; }
    std::uint32_t delivered() const { return delivered_; }

private:
    const PacketSocket& main_;
    const bool announces_;
    const bool toTheOne_;
    std::atomic<std::uint32_t> last_{0};
    std::atomic<std::uint32_t> awaited_{0};
    std::atomic<std::uint32_t> delivered_{0};
};

}  // namespace nexnipc
