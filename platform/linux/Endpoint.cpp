#include "Endpoint.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdio>

#include "Restart.h"
#include "Settings.h"
#include "Trust.h"

namespace nexnipc {
namespace {

constexpr int kBacklog = 128;

// With its parents, which nobody else needs to look into either.
int createDirectory(const std::string& path) {
    int status = ::mkdir(path.c_str(), 0700) == 0 ? 0 : -errno;
    const std::size_t slash = path.find_last_of('/');
    if (status == -ENOENT && slash != std::string::npos && slash > 0) {
        status = createDirectory(path.substr(0, slash));
        if (status == 0) status = ::mkdir(path.c_str(), 0700) == 0 ? 0 : -errno;
    }
    if (status != 0) return status == -EEXIST ? 0 : status;
    const std::optional<unsigned> group = trustedGroup();
    if (!group) return 0;
    Fd directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!directory.valid()) return -errno;
    if (::fchown(directory.get(), static_cast<uid_t>(-1), *group) != 0) return -errno;
    return ::fchmod(directory.get(), 0750) == 0 ? 0 : -errno;
}

// A file of the directory, by a path that is short however long the directory's own is.
sockaddr_un addressIn(const Fd& directory, const std::string& name) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof(address.sun_path), "/proc/self/fd/%d/%s", directory.get(), name.c_str());
    return address;
}

const sockaddr* generic(const sockaddr_un& address) { return reinterpret_cast<const sockaddr*>(&address); }

}  // namespace

// Everything afterwards goes through the descriptor, so that the directory cannot be exchanged under us.
int openDirectory(const std::string& path, Fd& directory) {
    directory.reset(::open(path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!directory.valid()) return -errno;
    struct stat status {};
    if (::fstat(directory.get(), &status) != 0) return -errno;
    return checkDirectory(status);
}

int dialIn(const std::string& path, std::uint16_t uuid, int sendLimitMs, PacketSocket& connected) {
    Fd directory;
    if (const int status = openDirectory(path, directory)) return status;
    PacketSocket socket(Fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)));
    if (!socket.valid()) return -errno;
    socket.setSendLimit(sendLimitMs);  // which bounds the connecting as well
    const sockaddr_un address = addressIn(directory, socketName(uuid));
    Restart restart(socket.fd(), SO_SNDTIMEO);
    while (::connect(socket.fd(), generic(address), sizeof(address)) != 0) {
        if (errno != EINTR) return errno == EAGAIN ? -ETIMEDOUT : -errno;
        if (!restart.allowed()) return -ETIMEDOUT;
    }
    connected = std::move(socket);
    return 0;
}

std::string socketName(std::uint16_t uuid) { return std::to_string(uuid) + ".sock"; }

std::vector<std::string> searchedDirectories() {
    std::vector<std::string> directories{ownDirectory()};
    if (directories.front() != rootDirectory()) directories.push_back(rootDirectory());
    return directories;
}

int dial(std::uint16_t uuid, int sendLimitMs, PacketSocket& connected) {
    for (const std::string& path : searchedDirectories()) {
        const int status = dialIn(path, uuid, sendLimitMs, connected);
        bool absent = status == -ENOENT || status == -ECONNREFUSED;
        // What root keeps to itself is not there for others.
        if (path != ownDirectory()) absent = absent || status == -EACCES || status == -EPERM;
        if (!absent) return status;
    }
    return -ECONNREFUSED;
}

int Endpoint::offer(std::uint16_t uuid) {
    uuid_ = uuid;
    const std::string path = ownDirectory();
    int status = openDirectory(path, directory_);
    if (status == -ENOENT) {
        status = createDirectory(path);
        if (status == 0) status = openDirectory(path, directory_);
    }
    if (status == 0) status = lock();
    return status == 0 ? bindAndListen() : status;
}

int Endpoint::lock() {
    const std::string name = std::to_string(uuid_) + ".lock";
    lock_.reset(::openat(directory_.get(), name.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!lock_.valid()) return -errno;
    if (::flock(lock_.get(), LOCK_EX | LOCK_NB) == 0) return 0;
    return errno == EWOULDBLOCK ? -EADDRINUSE : -errno;
}

int Endpoint::bindAndListen() {
    const std::string temporary = std::to_string(uuid_) + ".new";
    listener_.reset(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!listener_.valid()) return -errno;
    const sockaddr_un address = addressIn(directory_, temporary);
    ::unlinkat(directory_.get(), temporary.c_str(), 0);
    if (::bind(listener_.get(), generic(address), sizeof(address)) != 0) return -errno;

    const std::optional<unsigned> group = trustedGroup();
    int status = 0;
    if (group && ::chown(address.sun_path, static_cast<uid_t>(-1), *group) != 0) status = -errno;
    if (status == 0 && ::chmod(address.sun_path, group ? 0660 : 0600) != 0) status = -errno;
    if (status == 0 && ::listen(listener_.get(), kBacklog) != 0) status = -errno;
    const std::string name = socketName(uuid_);
    if (status == 0 && ::renameat(directory_.get(), temporary.c_str(), directory_.get(), name.c_str()) != 0)
        status = -errno;
    if (status != 0) ::unlinkat(directory_.get(), temporary.c_str(), 0);
    offered_ = status == 0;
    return status;
}

void Endpoint::withdraw() {
    if (offered_) ::unlinkat(directory_.get(), socketName(uuid_).c_str(), 0);
    offered_ = false;
    // Unlocked as well as closed: a child of a fork may still hold the same lock.
    if (lock_.valid()) ::flock(lock_.get(), LOCK_UN);
    lock_.reset();
}

}  // namespace nexnipc
