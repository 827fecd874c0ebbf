#pragma once

#include <sys/epoll.h>

#include <array>
#include <cstdint>
#include <memory>
#include <unordered_map>

#include "PacketBatch.h"
#include "Service.h"
#include "Spin.h"

namespace nexnipc {

// The delivery thread of a service: takes what its clients send, calls the listener, answers.
class ServiceDelivery {
public:
    // The wake-up's number among those of clients.
    static constexpr std::uint64_t kInbox = 1U << 16;

    explicit ServiceDelivery(std::shared_ptr<Service> service);
    void run();

private:
    using SessionPtr = std::shared_ptr<Session>;

    void loop();
    bool lookAgain();
    int poll(int timeout);
    void serveEvents(int count);
    void takeInbox();
    void arrive(const SessionPtr& session);
    void serve(std::uint16_t clientId, std::uint32_t events);
    bool readTurn(Session& session, std::uint32_t events);
    bool handleAll(Session& session);
    bool putAside(Session& session);
    bool handle(Session& session, Packet& packet);
    bool handleAsync(Session& session, Packet& packet);
    bool handleShare(Session& session, Packet& packet);
    bool handleSync(Session& session, Packet& packet);
    void answer(Session& session, const FrameHeader& request, const Call& call, std::size_t bufferSize);
    void leave(SessionPtr session);
    bool watch(const Session& session, int operation, std::uint32_t events) const;
    void finish();

    const std::shared_ptr<Service> pinned_;
    Service& service_;
    std::unique_ptr<PacketBatch> batch_ = std::make_unique<PacketBatch>();
    std::array<epoll_event, 16> events_{};
    Spin spin_;
    Spin announced_;
    bool isAnnounced_ = false;  // a share will follow
    std::uint16_t latest_ = 0;  // the client that was served last, when it was the only one
    unsigned looks_ = 0;
    std::unordered_map<std::uint16_t, SessionPtr> active_;
};

}  // namespace nexnipc
