#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Fd.h"
#include "PacketSocket.h"

namespace nexnipc {

// The file that a service's socket has in its directory.
std::string socketName(std::uint16_t uuid);

// Where a client looks for services, in this order.
std::vector<std::string> searchedDirectories();

// Opens a directory of services, if it is one that may be trusted; 0 or a negative errno.
int openDirectory(const std::string& path, Fd& directory);

// Connects to the service of that directory; 0 or a negative errno.
int dialIn(const std::string& path, std::uint16_t uuid, int sendLimitMs, PacketSocket& connected);

// The same wherever it is: -ECONNREFUSED says that nobody offers it; -ETIMEDOUT, that too many others are before
// us in its queue. `sendLimitMs` stays in force for the socket.
int dial(std::uint16_t uuid, int sendLimitMs, PacketSocket& connected);

// A service's place in the directory: its lock, which says that somebody lives here, and its socket.
class Endpoint {
public:
    // Takes the place; -EADDRINUSE when a living process has it.
    int offer(std::uint16_t uuid);
    // Gives it up: no client finds it any more, and another may take it.
    void withdraw();
    ~Endpoint() { withdraw(); }

    Fd takeListener() { return std::move(listener_); }

private:
    int lock();
    int bindAndListen();

    std::uint16_t uuid_ = 0;
    Fd directory_;
    Fd lock_;
    Fd listener_;
    bool offered_ = false;
};

}  // namespace nexnipc
