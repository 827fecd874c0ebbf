#pragma once

#include <CLI/App.hpp>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "nipcconnector/NIPCConnector.h"

namespace nipcctl {

using Clock = std::chrono::steady_clock;

/// A point in time that many seconds ahead; 0 stands for a far one.
Clock::time_point deadlineIn(double seconds);

/// What the options of every command that talks with a service say.
struct ServiceOptions {
    std::uint16_t uuid = 0;
    bool verbose = false;

    void addTo(CLI::App& command);
};

/// What the log tells of the connection and its failures, and what a command waits for besides. The log is the one
/// place that says when a connection can be used, and why something failed.
class Monitor {
public:
    bool connected = false;
    unsigned losses = 0;
    std::optional<int> startFailure;      ///< status of the last attempt to connect, or to offer the service
    std::optional<int> transportFailure;  ///< status of the last request that could not be carried
    bool refused = false;                 ///< the service answered the last synchronous request by refusing it
    bool notSent = false;                 ///< the last request found no connection
    std::string firstError;

    /// Forgets what is told of a request.
    void beginRequest();

    template <typename Change>
    void change(Change&& apply) {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            apply();
        }
        changed_.notify_all();
    }
    /// Waits until `holds`, which may look at everything here, and the deadline at most. False when it does not hold.
    template <typename Condition>
    bool await(Clock::time_point deadline, Condition&& holds) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_until(lock, deadline, holds);
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
};

struct Link {
    std::uint16_t uuid = 0;
    std::shared_ptr<Monitor> monitor;
    std::shared_ptr<nipcconnector::NIPCConnector> connector;

    /// Waits until requests can be made. Without `patient` it gives up as soon as an attempt has failed, but
    /// for one that took too long, on a machine that is busy.
    void awaitConnected(Clock::time_point deadline, bool patient) const;
};

/// A client that is connecting, or a server whose service is offered once `initialize` has been called: handlers and
/// subscriptions come before.
Link makeClient(const ServiceOptions& options);
Link makeServer(const ServiceOptions& options);
void initialize(const Link& link);

/// Starts the service; fails with Exit::Unreachable when it cannot be offered at once.
void offer(const Link& link);

/// What a status of the platform means to who meets it.
std::string meaningOf(int status);

}  // namespace nipcctl
