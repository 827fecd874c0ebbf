#pragma once

#include <cstdint>
#include <mutex>
#include <unordered_set>

namespace nipcconnector {

/// The clients of all server connectors of this process: one set, since a client's id is unique in the
/// process. Never destroyed: the platform may tell of clients while the process ends.
struct ConnectedClients {
    std::unordered_set<std::uint16_t> connectedClients;
    std::mutex connectedClientsMutex;
};

ConnectedClients& connectedClientSet();

}  // namespace nipcconnector
