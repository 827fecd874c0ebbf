#include "Connect.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>
#include <set>
#include <utility>

#include "Endpoint.h"
#include "Presence.h"
#include "Process.h"
#include "Settings.h"
#include "Trust.h"

namespace nexnipc {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kFirstWait(1);
constexpr std::chrono::seconds kLaterWait(300);
constexpr std::chrono::seconds kHandshakeLimit(2);
constexpr int kSendLimitMs = 3000;

// Who has waited in vain. Never destroyed, as a connect may outlive main().
class Patience {
public:
    static Patience& get() {
        static Patience* const patience = new Patience;
        return *patience;
    }
    bool isFirst(std::uint16_t uuid, const void* context) {
        std::lock_guard<std::mutex> lock(mutex_);
        return waited_.count({uuid, context}) == 0;
    }
    void remember(std::uint16_t uuid, const void* context) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (waited_.size() >= kLimit) waited_.clear();
        waited_.emplace(uuid, context);
    }
    void forget(std::uint16_t uuid, const void* context) {
        std::lock_guard<std::mutex> lock(mutex_);
        waited_.erase({uuid, context});
    }

private:
    static constexpr std::size_t kLimit = 1024;
    std::mutex mutex_;
    std::set<std::pair<std::uint16_t, const void*>> waited_;
};

int awaitReadable(const PacketSocket& socket, Clock::time_point deadline) {
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) return -ETIMEDOUT;
        pollfd ready{socket.fd(), POLLIN, 0};
        const int count = ::poll(&ready, 1, static_cast<int>(left));
        if (count > 0) return 0;
        if (count < 0 && errno != EINTR) return -errno;
    }
}

int handshake(std::uint16_t uuid, PacketSocket socket, Connection& connection) {
    Peer peer;
    if (const int status = identifyPeer(socket.fd(), trustedGroup(), peer)) return status;
    Hello hello;
    hello.uuid = uuid;
    FrameHeader header;
    header.type = FrameType::Hello;
    header.length = sizeof(hello);
    if (const int status = socket.send(header, &hello, -1, Wait::No)) return status;
    if (const int status = awaitReadable(socket, Clock::now() + kHandshakeLimit)) return status;
    Welcome welcome;
    Fd control;
    const int length = socket.receiveInto(header, &welcome, sizeof(welcome), control);
    if (length < 0) return length;
    if (length != sizeof(welcome) || header.type != FrameType::Welcome || welcome.magic != kMagic) return -EPROTO;
    if (header.status != 0) return header.status < 0 ? header.status : -EPROTO;
    if (welcome.version != kVersion || !control.valid()) return -EPROTO;
    connection.main = std::move(socket);
    connection.control = PacketSocket(std::move(control));
    connection.ownProcess = peer.pid == ::getpid();
    connection.serviceHandle = welcome.serviceHandle;
    return 0;
}

int waitAndConnect(std::uint16_t uuid, Clock::time_point deadline, Connection& connection) {
    Process& process = Process::get();
    Presence::Wait presence(*process.presence, uuid);
    for (;;) {
        if (const int status = presence.refresh()) return status;
        PacketSocket socket;
        const int status = dial(uuid, kSendLimitMs, socket);
        if (status == 0) return handshake(uuid, std::move(socket), connection);
        if (status != -ECONNREFUSED) return status;
        const bool changed = presence.await(deadline);
        if (process.isQuiet()) return -ECANCELED;
        if (!changed) return status;
    }
}

}  // namespace

int establish(std::uint16_t uuid, const void* userContext, Connection& connection) {
    Patience& patience = Patience::get();
    const auto wait = patience.isFirst(uuid, userContext) ? kFirstWait : kLaterWait;
    const int status = waitAndConnect(uuid, Clock::now() + wait, connection);
    if (status == 0) {
        patience.forget(uuid, userContext);
    } else {
        patience.remember(uuid, userContext);
    }
    return status;
}

}  // namespace nexnipc
