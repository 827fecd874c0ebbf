#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "Acceptor.h"
#include "Endpoint.h"
#include "Session.h"
#include "Upcall.h"

namespace nexnipc {

// A service that this process offers.
class Service : public std::enable_shared_from_this<Service> {
public:
    // Offers it and starts its thread; writes the handle before the first call of the listener.
    static int start(std::int32_t* handle, const ServerStartRecord& record);

    Service(std::int32_t handle, const ServerStartRecord& record);
    ~Service();

    // Ends it, and waits for running listener calls (not for the one it is called from).
    void stop();

    // Any thread, to one client; 0 or a negative errno.
    int callback(std::uint16_t clientId, const CallbackRecord& record);
    int share(std::uint16_t clientId, const ShareFdMsg* message);

    // Exit of the process: no new clients, no new calls; then no clients.
    void withdraw();
    void dropSessions();

    // Lane: a client has said hello.
    void welcome(PacketSocket main, Peer peer, bool probe);
    // Lane: a client has acknowledged a share.
    void acknowledged(std::uint16_t clientId);
    // Lane: a client's requests need not wait any more.
    void resume(std::uint16_t clientId);
    bool reserveChannel(Session& session);
    void releaseChannel(Session& session);

    // Whether the calling thread is the delivery thread of that handle.
    static bool delivers(std::int32_t handle);

    const std::uint16_t uuid;
    const std::int32_t handle;
    Upcall upcall;

private:
    friend class ServiceDelivery;
    struct PeerUse {
        unsigned clients = 0;
        unsigned channels = 0;
    };

    int open();
    void letAbandonedLeave();
    int admit(PacketSocket& main, Peer peer, PacketSocket& theirControl, std::shared_ptr<Session>& session);
    int reserveClient(pid_t pid);
    void releaseClient(pid_t pid);
    void releaseClientLocked(pid_t pid);
    void forget(std::shared_ptr<Session> session);
    std::shared_ptr<Session> find(std::uint16_t clientId);
    void wake();

    const std::uint32_t maxSync_;
    const std::chrono::microseconds spinLimit_;
    const std::uint64_t startedAt_;
    const std::shared_ptr<QueueBudget> budget_;
    Endpoint endpoint_;
    std::shared_ptr<Acceptor> acceptor_;
    Fd wakeup_;
    Fd epoll_;  // the delivery thread's
    std::atomic<bool> stopped_{false};

    std::mutex mutex_;  // taken before those of sessions
    std::unordered_map<std::uint16_t, std::shared_ptr<Session>> sessions_;
    std::map<pid_t, PeerUse> peers_;
    std::list<std::shared_ptr<Session>> arrived_;  // for the delivery thread
    std::vector<std::uint16_t> resumed_;           // for the delivery thread
};

}  // namespace nexnipc
