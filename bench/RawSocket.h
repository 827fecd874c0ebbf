#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <utility>

#include "Process.h"

namespace bench {

/// A packet socket of the raw baselines.
class RawSocket {
public:
    RawSocket() = default;
    explicit RawSocket(int descriptor) : fd(descriptor) { require(fd >= 0, "socket"); }
    RawSocket(RawSocket&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    RawSocket& operator=(RawSocket&& other) noexcept {
        std::swap(fd, other.fd);
        return *this;
    }
    ~RawSocket() {
        if (fd >= 0) close(fd);
    }

    static RawSocket listenIn(const std::string& directory) {
        RawSocket s(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        const sockaddr_un address = addressIn(directory);
        require(bind(s.fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0, "bind");
        require(listen(s.fd, 128) == 0, "listen");
        return s;
    }
    static RawSocket connectIn(const std::string& directory) {
        RawSocket s(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        const sockaddr_un address = addressIn(directory);
        require(::connect(s.fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0, "connect");
        return s;
    }
    RawSocket accept() const { return RawSocket(::accept4(fd, nullptr, nullptr, SOCK_CLOEXEC)); }

    int get() const { return fd; }

    /// False when the peer is gone, or when the socket is full and `flags` say not to wait.
    bool send(const void* data, std::size_t size, int flags = 0) const {
        const ssize_t n = ::send(fd, data, size, flags | MSG_NOSIGNAL);
        require(n == static_cast<ssize_t>(size) || (n < 0 && (errno == EAGAIN || errno == EPIPE)), "send");
        return n >= 0;
    }
    /// -1 when there is nothing and `flags` say not to wait.
    ssize_t receive(void* data, std::size_t size, int flags = 0) const {
        const ssize_t n = ::recv(fd, data, size, flags);
        require(n >= 0 || errno == EAGAIN, "recv");
        return n;
    }

private:
    static sockaddr_un addressIn(const std::string& directory) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::snprintf(address.sun_path, sizeof(address.sun_path), "%s/raw", directory.c_str());
        return address;
    }

    int fd = -1;
};

}  // namespace bench
