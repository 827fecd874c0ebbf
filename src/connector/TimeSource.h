#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "smarthome/Export.h"

namespace nipcconnector {

/// The one way by which time, sleep and jitter enter the connector, so that a test can run twenty minutes
/// of retrying in milliseconds. Thread-safe.
class TimeSource {
public:
    virtual ~TimeSource() = default;

    /// The steady clock, in nanoseconds.
    virtual std::uint64_t now() = 0;
    virtual void sleep(std::uint64_t milliseconds) = 0;
    /// A uniform random number from 0 to `range` - 1; `range` is above 0.
    virtual unsigned int random(unsigned int range) = 0;
    /// Waits on `condition` until it is notified or now() reaches `deadline`; may wake up early.
    virtual std::cv_status waitUntil(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
                                     std::uint64_t deadline) = 0;
};

/// The system's clock, unless a test has put another in its place.
TimeSource& timeSource();

/// Puts `source` in place of the system's clock, or that back when null. For tests, of components
/// too: exported, but in no public header.
SMARTHOME_EXPORT void setTimeSource(TimeSource* source);

}  // namespace nipcconnector
