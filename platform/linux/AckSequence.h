#pragma once

#include <atomic>
#include <cstdint>

namespace nexnipc {

// Ties an acknowledgement to its transfer: of the shares sent over one connection only the latest can be
// acknowledged, and once.
class AckSequence {
public:
    // The number of a share that is about to be sent.
    std::uint32_t next() {
        std::uint32_t number = ++last_;
        if (number == 0) number = ++last_;
        awaited_ = number;
        return number;
    }
    // The share was not sent.
    void cancel(std::uint32_t number) { accept(number); }
    // Whether an acknowledgement is the one awaited.
    bool accept(std::uint32_t number) { return number != 0 && awaited_.compare_exchange_strong(number, 0); }

    // The other direction: the share that was last delivered, which an acknowledgement of ours answers.
    void setDelivered(std::uint32_t number) { delivered_ = number; }
    std::uint32_t delivered() const { return delivered_; }

private:
    std::atomic<std::uint32_t> last_{0};
    std::atomic<std::uint32_t> awaited_{0};
    std::atomic<std::uint32_t> delivered_{0};
};

}  // namespace nexnipc
