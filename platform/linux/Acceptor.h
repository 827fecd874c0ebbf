#pragma once

#include <list>
#include <memory>
#include <mutex>
#include <optional>

#include "Lane.h"
#include "PacketBatch.h"
#include "Trust.h"

namespace nexnipc {

class HalfOpen;
class Service;

// The listening socket of a service. Lane only, but for close().
class Acceptor : public LaneSource, public std::enable_shared_from_this<Acceptor> {
public:
    Acceptor(Lane& lane, Fd listener, std::optional<unsigned> trustedGroup, std::weak_ptr<Service> service)
        : lane_(lane), listener_(std::move(listener)), trustedGroup_(trustedGroup), service_(std::move(service)) {}

    // Any thread; 0 or a negative errno.
    int open();
    void close();

    void onReady(std::uint32_t events, PacketBatch& scratch) override;
    void onDeadline() override;
    void onAbandoned() noexcept override {}

private:
    friend class HalfOpen;
    void admit(Fd connection);
    void pause();

    Lane& lane_;
    const PacketSocket listener_;
    const std::optional<unsigned> trustedGroup_;
    const std::weak_ptr<Service> service_;
    std::mutex mutex_;  // of the two below; taken before the lane's
    std::uint64_t source_ = 0;
    bool closed_ = false;
    std::list<std::shared_ptr<HalfOpen>> halfOpen_;  // the oldest first
};

// A connection whose client has not said yet what it wants.
class HalfOpen : public LaneSource, public std::enable_shared_from_this<HalfOpen> {
public:
    HalfOpen(std::shared_ptr<Acceptor> acceptor, PacketSocket socket, Peer peer)
        : acceptor_(std::move(acceptor)), socket_(std::move(socket)), peer_(peer) {}

    int open();
    void drop();
    void onReady(std::uint32_t events, PacketBatch& scratch) override;
    void onDeadline() override { drop(); }
    // The one thing drop() could throw is that no shared_ptr owns this, and one does.
    void onAbandoned() noexcept override { drop(); }  // NOLINT(bugprone-exception-escape)

private:
    int checkHello(const Packet& packet, struct Hello& hello) const;

    const std::shared_ptr<Acceptor> acceptor_;
    PacketSocket socket_;
    const Peer peer_;
};

}  // namespace nexnipc
