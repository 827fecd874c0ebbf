#include "Publisher.h"

#include <cstdint>
#include <cstring>
#include <vector>

#include "Process.h"

namespace bench {

void publishEvents(const Options& options, SharedPage& page, const Publish& publish) {
    constexpr long credit = 1024;
    while (page.subscribed < options.subscribers) nap(50);
    nap(100000);

    std::vector<char> event(options.size, 'e');
    const std::uint64_t start = now();
    const auto limit = static_cast<std::uint64_t>(options.seconds * 1e9);
    page.publishingSince = start;
    long sent = 0;
    for (long taken = 0; sent < options.count && now() - start < limit; ++sent) {
        if (options.rate > 0) {
            const auto due =
                static_cast<std::uint64_t>(static_cast<double>(sent) * 1e9 / static_cast<double>(options.rate));
            napUntil(start + due);
        }
        while (sent - taken >= credit) {
            taken = page.slowestSubscriber(options.subscribers);
            if (sent - taken >= credit) nap(50);
        }
        const std::uint64_t published = now();
        std::memcpy(event.data(), &published, sizeof(published));
        publish(event.data(), event.size());
    }
    page.published = sent;
}

}  // namespace bench
