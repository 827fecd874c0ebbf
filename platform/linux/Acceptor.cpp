#include "Acceptor.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Service.h"
#include "Undo.h"

namespace nexnipc {
namespace {

constexpr unsigned kAcceptedPerTurn = 16;
constexpr std::size_t kHalfOpenLimit = 64;
constexpr std::chrono::seconds kHelloLimit(2);
constexpr std::chrono::milliseconds kPause(100);

void refuse(const PacketSocket& socket, int status) {
    const Welcome welcome;
    FrameHeader header;
    header.type = FrameType::Welcome;
    header.length = sizeof(welcome);
    header.status = status;
    socket.send(header, &welcome, -1, Wait::No);
}

}  // namespace

int Acceptor::open() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_) return -ECANCELED;
    source_ = lane_.add(listener_.fd(), EPOLLIN, shared_from_this());
    return source_ != 0 ? 0 : -errno;
}

void Acceptor::close() {
    std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
    lane_.remove(source_);
    listener_.shutdown();
}

void Acceptor::onReady(std::uint32_t, PacketBatch&) {
    for (unsigned i = 0; i < kAcceptedPerTurn; ++i) {
        Fd connection(::accept4(listener_.fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (connection.valid()) {
            admit(std::move(connection));
        } else if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
            return pause();
        } else if (errno != EINTR && errno != ECONNABORTED) {
            return;
        }
    }
}

// The connection that cannot be accepted stays ready: do not look for a while, instead of spinning.
void Acceptor::pause() {
    lane_.watch(laneId(), 0);
    lane_.setDeadline(laneId(), Lane::Clock::now() + kPause);
}

void Acceptor::onDeadline() { lane_.watch(laneId(), EPOLLIN); }

void Acceptor::admit(Fd connection) {
    Peer peer;
    const int status = identifyPeer(connection.get(), trustedGroup_, peer);
    PacketSocket socket(std::move(connection));
    if (status != 0) return refuse(socket, status);
    if (halfOpen_.size() >= kHalfOpenLimit) halfOpen_.front()->drop();
    auto half = std::make_shared<HalfOpen>(shared_from_this(), std::move(socket), peer);
    halfOpen_.push_back(half);
    Undo undo([&] { half->drop(); });
    if (half->open() == 0) undo.dismiss();
}

int HalfOpen::open() {
    const std::uint64_t id = acceptor_->lane_.add(socket_.fd(), EPOLLIN, shared_from_this());
    if (id == 0) return -errno;
    acceptor_->lane_.setDeadline(id, Lane::Clock::now() + kHelloLimit);
    return 0;
}

void HalfOpen::drop() {
    const auto self = shared_from_this();  // kept through the removals
    acceptor_->lane_.remove(laneId());
    acceptor_->halfOpen_.remove(self);
}

void HalfOpen::onReady(std::uint32_t, PacketBatch& scratch) {
    if (scratch.receive(socket_, Wait::No) == -EAGAIN) return;
    drop();
    const Packet* const greeting = scratch.next();
    if (greeting == nullptr || scratch.more()) return;
    Hello hello;
    const int status = checkHello(*greeting, hello);
    const std::shared_ptr<Service> service = acceptor_->service_.lock();
    if (status != 0 || !service || hello.uuid != service->uuid) return refuse(socket_, status != 0 ? status : -EPROTO);
    service->welcome(std::move(socket_), peer_, (hello.flags & kHelloProbe) != 0);
}

int HalfOpen::checkHello(const Packet& packet, Hello& hello) const {
    const FrameHeader& header = packet.header;
    if (header.type != FrameType::Hello || header.length != sizeof(hello) || packet.descriptor.valid()) return -EPROTO;
    std::memcpy(&hello, packet.payload, sizeof(hello));
    if (hello.magic != kMagic) return -EPROTO;
    return hello.minVersion <= kVersion && kVersion <= hello.maxVersion ? 0 : -EPROTONOSUPPORT;
}

}  // namespace nexnipc
