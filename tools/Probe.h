#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

/// Services of the Linux platform, seen from outside: by their sockets, and by a handshake that asks who is there and
/// that the service does not take for a client's.
namespace nipcctl {

struct Service {
    std::string directory;
    std::uint16_t uuid = 0;
    int status = 0;  ///< 0, or why it does not talk to us; the rest is then unknown
    pid_t pid = 0;
    uid_t user = 0;
    std::time_t since = 0;
    unsigned clients = 0;

    bool isStale() const;  ///< a socket that its process left behind
};

Service probe(const std::string& directory, std::uint16_t uuid);

/// The uuids that have a socket there, in order. `status` is 0 or why the directory cannot be used.
std::vector<std::uint16_t> socketsIn(const std::string& directory, int& status);

std::string processName(pid_t pid);
std::string userName(uid_t user);

}  // namespace nipcctl
