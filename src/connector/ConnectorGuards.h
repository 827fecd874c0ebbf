#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace nipcconnector {

/// What keeps the connector's members whole where threads meet in their midst.
struct ConnectorGuards {
    /// Held for a whole large transfer, so that one acknowledgement cannot end two. `fdAckMutex` is a leaf
    /// around the flag alone: the acknowledgement may come back on the sending thread.
    std::mutex transferGate;

    /// Held while the service is being started, so that two starts cannot meet.
    std::mutex startGate;

    /// Connect attempts that are between their beginning and their end. Guarded by `connectionMutex`, as
    /// is the next one.
    int attempts = 0;
    std::condition_variable attemptEnded;

    /// The listener was told of a failure or a loss since the attempt began: what the attempt has yielded
    /// is dead.
    bool lost = false;

    /// Where the platform writes the handle of the service. While `starting`, the listener may already be
    /// called; from there the handle is known to be written, and goes into `nipcHandle`.
    std::int32_t serviceHandle = -1;
    std::atomic<bool> starting{false};
};

}  // namespace nipcconnector
