#include "Connect.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <mutex>
#include <set>
#include <utility>

#include "Endpoint.h"
#include "Handshake.h"
#include "Presence.h"
#include "Process.h"
#include "Spin.h"

namespace nexnipc {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kFirstWait(1);
constexpr std::chrono::seconds kLaterWait(300);

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

int handshake(std::uint16_t uuid, PacketSocket socket, Connection& connection) {
    Greeting greeting;
    if (const int status = shakeHands(socket, uuid, 0, greeting)) return status;
    if (!greeting.control.valid()) return -EPROTO;
    connection.main = std::move(socket);
    connection.control = PacketSocket(std::move(greeting.control));
    connection.peer = greeting.peer;
    connection.ownProcess = greeting.peer.pid == ::getpid();
    connection.apart = canRunApart(greeting.peer.pid);
    connection.serviceHandle = greeting.welcome.serviceHandle;
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
