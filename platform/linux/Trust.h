#pragma once

#include <sys/types.h>

#include <optional>

struct stat;

namespace nexnipc {

// Whom the kernel says is at the other end of a socket.
struct Peer {
    pid_t pid = 0;
    uid_t uid = 0;
};

// Fills `peer`; 0, -EACCES for somebody we do not talk to, or another negative errno.
int identifyPeer(int socket, std::optional<unsigned> trustedGroup, Peer& peer);

// Whether sockets may live in such a directory: 0 or -EPERM.
int checkDirectory(const struct stat& status);

}  // namespace nexnipc
