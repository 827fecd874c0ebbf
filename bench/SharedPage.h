#pragma once

#include <atomic>
#include <cstdint>

#include "Options.h"

namespace bench {

/// One subscriber's count of events, on a cache line of its own.
struct alignas(64) Arrivals {
    std::atomic<long> count{0};
};

/// The memory that all processes of a run see.
struct SharedPage {
    std::atomic<bool> serviceReady{false};
    std::atomic<int> helpersReady{0};  ///< Busy and idle clients that have connected.
    std::atomic<int> subscribed{0};
    std::atomic<std::uint64_t> publishingSince{0};
    std::atomic<long> published{-1};  ///< How many events, once the publisher is through.
    Arrivals arrivals[maxSubscribers];

    long slowestSubscriber(int subscribers) const {
        long least = arrivals[0].count;
        for (int i = 1; i < subscribers; ++i) {
            const long count = arrivals[i].count;
            if (count < least) least = count;
        }
        return least;
    }
};

}  // namespace bench
