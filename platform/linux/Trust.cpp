#include "Trust.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "Settings.h"

namespace nexnipc {
namespace {

bool isOurs(uid_t user) { return user == ::geteuid() || user == 0; }

bool isMember(int socket, gid_t primary, gid_t wanted) {
    if (primary == wanted) return true;
    std::vector<gid_t> groups(64);
    auto size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) != 0) {
        if (errno != ERANGE) return false;
        groups.resize(size / sizeof(gid_t));
        if (::getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) != 0) return false;
    }
    groups.resize(size / sizeof(gid_t));
    return std::find(groups.begin(), groups.end(), wanted) != groups.end();
}

}  // namespace

int identifyPeer(int socket, std::optional<unsigned> trustedGroup, Peer& peer) {
    ucred credentials{};
    socklen_t size = sizeof(credentials);
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) return -errno;
    peer.pid = credentials.pid;
    peer.uid = credentials.uid;
    if (isOurs(credentials.uid)) return 0;
    return trustedGroup && isMember(socket, credentials.gid, *trustedGroup) ? 0 : -EACCES;
}

int checkDirectory(const struct stat& status) {
    if (!S_ISDIR(status.st_mode) || !isOurs(status.st_uid) || (status.st_mode & S_IWOTH) != 0) return -EPERM;
    if ((status.st_mode & S_IWGRP) == 0) return 0;
    const std::optional<unsigned> group = trustedGroup();
    return group && status.st_gid == *group ? 0 : -EPERM;
}

}  // namespace nexnipc
