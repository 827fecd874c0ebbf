#pragma once

#include <cstddef>
#include <functional>
#include <memory>

#include "Options.h"

namespace bench {

/// What is measured: both ends of one way to carry messages between two processes. The harness calls the first
/// group in the service's process and the second in the client's.
class Subject {
public:
    virtual ~Subject() = default;

    /// Why this run makes no sense for the subject, or null.
    virtual const char* unsupported() const { return nullptr; }

    /// Returns when a client can connect.
    virtual void startService() = 0;
    /// Answers until the process is killed: W4 with nothing, the others with what came.
    virtual void answer() = 0;
    /// Returns when all subscribers of W3 have connected.
    virtual void awaitSubscribers() {}
    virtual void publish(const char* data, std::size_t size) = 0;

    virtual void connect() = 0;
    /// Further connections that never say anything.
    virtual void connectIdle(int connections) = 0;
    /// One request and its answer; returns the size of the answer. `caller` and `turn` choose among services.
    virtual std::size_t call(int caller, long turn, const char* data, std::size_t size) = 0;
    /// `count` echo requests with Options::window of them under way at any time.
    virtual void pipeline(long count) = 0;
    /// Has `onEvent` run, with the number of the subscriber, for each event. Returns when all are connected.
    using OnEvent = std::function<void(int subscriber, const char* data, std::size_t size)>;
    virtual void subscribe(OnEvent onEvent) = 0;
};

std::unique_ptr<Subject> makeConnectorSubject(const Options& options);
std::unique_ptr<Subject> makeRawPacketSubject(const Options& options);
std::unique_ptr<Subject> makeRawMemorySubject(const Options& options);

/// The subject that Options::variant names.
std::unique_ptr<Subject> makeSubject(const Options& options);

}  // namespace bench
