#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "nipcconnector/IMetricsRecorder.h"
#include "nipcconnector/NIPCConnector.h"

namespace nipcconnector {

/// Knows whether a connector is connected (a client) or offers its service (a server), which initialize() does
/// not tell: it returns before the outcome is known, and requests made too early fail.
///
///     nipcconnector::ConnectionWatch watch;
///     const auto client = NIPCConnector::getInstance(true, name, config, nullptr, watch.recorder());
///     if (!client->initialize() || !watch.waitUntilConnected(*client, std::chrono::seconds(10))) ...
///
/// It learns from the connector's metrics: a loss at once, a connection from the aggregate report only, which
/// update() and the waiting operations ask for. One watch is for one connector. Thread-safe; copies share what
/// they know.
class ConnectionWatch {
public:
    /// Runs at each change, one call at a time, on a thread that learnt of it and sometimes under a lock of the
    /// connector: it must not call the connector. The last call says what is so, also when changes follow each other
    /// faster than it runs.
    using ChangeHandler = std::function<void(bool connected)>;

    /// The function may be empty.
    explicit ConnectionWatch(ChangeHandler onChange = nullptr);

    /// What to give to getInstance(). It passes everything on to `next`, which may be null, but for the reports
    /// that the watch asks for itself.
    std::unique_ptr<IMetricsRecorder> recorder(std::unique_ptr<IMetricsRecorder> next = nullptr) const;

    /// As last heard; false at first.
    bool connected() const;

    /// Asks the connector, and returns what it says. Like the connector's report itself not to be called from a
    /// logger or recorder.
    bool update(NIPCConnector& connector) const;

    /// Waits until the connector is connected, or is not any more; asks it now and then. False when `limit` is
    /// over first.
    bool waitUntilConnected(NIPCConnector& connector, std::chrono::milliseconds limit) const;
    /// @copydoc waitUntilConnected
    bool waitUntilLost(NIPCConnector& connector, std::chrono::milliseconds limit) const;

private:
    class Recorder;
    struct State;

    bool waitUntil(bool connected, NIPCConnector& connector, std::chrono::milliseconds limit) const;

    std::shared_ptr<State> state;
};

}  // namespace nipcconnector
