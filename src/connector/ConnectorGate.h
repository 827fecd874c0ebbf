#pragma once

#include <memory>

#include "nipcconnector/NIPCConnector.h"

namespace nipcconnector {

/// The way in for threads that know a connector only by its address: the platform's listener calls,
/// responders kept by handlers, and the retry thread. They may come at any time, also when the connector
/// is gone, so the gate is never destroyed and lets in only to connectors that live.
namespace ConnectorGate {

struct Door;

/// Who enters. The retry thread may still come in when others may not, to see that it was stopped.
enum class Visitor { Any, RetryThread };

/// Entry to a connector, or nothing. As long as it lasts the connector is not destroyed by the registry
/// or by anyone who holds a shared_ptr; one that was built directly waits for a while (see retire).
class Pin {
public:
    explicit Pin(const void* address, Visitor visitor = Visitor::Any);
    ~Pin();
    Pin(const Pin&) = delete;
    Pin& operator=(const Pin&) = delete;

    explicit operator bool() const { return connector != nullptr; }
    NIPCConnector* operator->() const { return connector; }
    NIPCConnector& operator*() const { return *connector; }

private:
    friend unsigned int visitsOfThisThread(const Door& door);

    NIPCConnector* connector = nullptr;
    std::shared_ptr<NIPCConnector> owner;
    std::shared_ptr<Door> door;
    Pin* outer = nullptr;
};

/// The constructor makes its connector known.
void open(NIPCConnector* connector);

/// From here on pins hold the connector.
void adopt(const std::shared_ptr<NIPCConnector>& connector);

/// Nobody new comes in, the retry thread excepted.
void close(NIPCConnector* connector);
bool isOpen(NIPCConnector* connector);

/// Waits at most 400 ms for other threads that are inside, then forgets the address.
void retire(NIPCConnector* connector);

/// Gives up the registry's share in closed connectors: waits at most 400 ms in all for other threads that
/// are inside. What is occupied even then is kept, reachable and never freed.
void releaseOrKeep(std::shared_ptr<NIPCConnector>* first, std::size_t count);

}  // namespace ConnectorGate
}  // namespace nipcconnector
