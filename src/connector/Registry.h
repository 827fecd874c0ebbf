#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "connector/CallbackManager.h"
#include "nipcconnector/NIPCConnector.h"

namespace nipcconnector {

/// The connectors of this process, and their callback managers.
///
/// The record itself is never destroyed: threads that come while the process ends find it empty and
/// `closed`. Emptying it, when the process ends, is what destroys the connectors.
struct Registry {
    std::map<std::string, std::shared_ptr<NIPCConnector>> instances;
    std::map<NIPCConnector*, std::shared_ptr<CallbackManager>> callbackManagers;
    std::mutex instancesMutex;  ///< Guards both maps and `closed`.
    bool closed = false;

    /// Forgets a connector that is being destroyed.
    void erase(NIPCConnector* connector);

    /// Takes everything out and gives it up, managers first. Connectors that other threads are inside of
    /// after 400 ms stay alive.
    void tearDown();
};

/// Built at the first call, and torn down at exit from then on.
Registry& registry();

/// The callback manager of a connector, or nothing.
std::shared_ptr<CallbackManager> getCallbackManager(NIPCConnector* connector);

}  // namespace nipcconnector
