#pragma once

#include <chrono>
#include <string>
#include <thread>

#include "nipcconnector/adapters/ConnectionWatch.h"

namespace howto {

// [served]
/// Waits until the service has answered `request`, a synchronous one. A connector may call itself connected for a
/// moment before the first request gets through, and for a moment after the service has died: an answer is the proof.
inline bool waitUntilServed(nipcconnector::NIPCConnector& client, const nipcconnector::ConnectionWatch& watch,
                            const std::string& request, std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < end) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if (!watch.waitUntilConnected(client, left)) return false;
        if (client.makeSyncRequest("", request, nullptr, 0).status == smarthome::RequestStatus::Success) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}
// [served]

}  // namespace howto
