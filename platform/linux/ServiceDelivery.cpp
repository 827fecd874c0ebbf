#include "ServiceDelivery.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "SealedMemory.h"

namespace nexnipc {
namespace {

constexpr unsigned kLooksBetween = 8;

thread_local std::int32_t deliveredHandle = 0;

// False also when memory ran out: the client it was done for is given up, and it alone.
template <typename Work>
bool attempt(const Work& work) {
    try {
        return work();
    } catch (...) {
        return false;
    }
}

}  // namespace

ServiceDelivery::ServiceDelivery(std::shared_ptr<Service> service)
    : pinned_(std::move(service)), service_(*pinned_), spin_(service_.spinLimit_), announced_(service_.spinLimit_) {}

bool Service::delivers(std::int32_t handle) { return deliveredHandle == handle; }

void ServiceDelivery::run() {
    deliveredHandle = service_.handle;
    try {
        loop();
    } catch (...) {
        // Out of memory where nothing could be given up: without its thread the service ends.
        service_.withdraw();
    }
    finish();
}

void ServiceDelivery::loop() {
    while (!service_.stopped_) {
        if (!lookAgain()) serveEvents(poll(-1));
    }
}

int ServiceDelivery::poll(int timeout) {
    return ::epoll_wait(service_.epoll_.get(), events_.data(), static_cast<int>(events_.size()), timeout);
}

void ServiceDelivery::serveEvents(int count) {
    for (int i = 0; i < count && !service_.stopped_; ++i) {
        const epoll_event& event = events_[static_cast<std::size_t>(i)];
        latest_ = 0;
        if (event.data.u64 == kInbox) {
            takeInbox();
        } else {
            serve(static_cast<std::uint16_t>(event.data.u64), event.events);
            if (count == 1) latest_ = static_cast<std::uint16_t>(event.data.u64);
        }
    }
}

// Who asked last is likely to ask next: its socket is read directly, the others are looked at now and then.
bool ServiceDelivery::lookAgain() {
    Spin& spin = std::exchange(isAnnounced_, false) ? announced_ : spin_;
    const auto found = active_.find(latest_);
    if (found == active_.end() || !found->second->apart) return false;
    SessionPtr session = found->second;
    if (session->unserved || session->holdReading()) return false;
    int status = 0;
    int others = 0;
    const auto look = [&] {
        others = ++looks_ % kLooksBetween == 0 ? poll(0) : 0;
        if (others == 0) status = batch_->receive(session->main, Wait::No);
        return others != 0 || status != -EAGAIN;
    };
    if (!spin.finds(look)) return false;
    if (others != 0) {
        serveEvents(others);
    } else {
        const bool good = attempt([&] { return !session->closed && handleAll(*session); });
        batch_->discard();
        if (!good) leave(std::move(session));
    }
    return true;
}

// However it ended: no client waits for an answer that nobody gives.
void ServiceDelivery::finish() {
    service_.dropSessions();
    active_.clear();
    for (;;) {
        SessionPtr remaining;
        {
            std::lock_guard<std::mutex> lock(service_.mutex_);
            if (service_.sessions_.empty()) return;
            remaining = service_.sessions_.begin()->second;
        }
        service_.forget(std::move(remaining));
    }
}

void ServiceDelivery::takeInbox() {
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t read = ::read(service_.wakeup_.get(), &count, sizeof(count));
    std::list<SessionPtr> arrived;
    std::vector<std::uint16_t> resumed;
    {
        std::lock_guard<std::mutex> lock(service_.mutex_);
        arrived.swap(service_.arrived_);
        resumed.swap(service_.resumed_);
    }
    for (const SessionPtr& session : arrived) arrive(session);
    for (const std::uint16_t id : resumed) {
        const auto found = active_.find(id);
        if (found == active_.end()) continue;
        watch(*found->second, EPOLL_CTL_MOD, EPOLLIN);
        if (found->second->unserved) serve(id, 0);
    }
}

void ServiceDelivery::arrive(const SessionPtr& session) {
    try {
        active_.emplace(session->id, session);
    } catch (...) {
        // Out of memory for this client: it alone is given up, before anybody has heard of it.
        session->shutdown();
        service_.forget(session);
        return;
    }
    Call call = Call::event(NEX_NIPC_EVENT_CLIENT_CONNECTED, session->id);
    service_.upcall.run(call);
    if (!watch(*session, EPOLL_CTL_ADD, EPOLLIN)) leave(session);
}

void ServiceDelivery::serve(std::uint16_t clientId, std::uint32_t events) {
    const auto found = active_.find(clientId);
    if (found == active_.end()) return;
    SessionPtr session = found->second;
    const bool good = attempt([&] { return !session->closed && readTurn(*session, events); });
    batch_->discard();
    if (!good) leave(std::move(session));
}

bool ServiceDelivery::readTurn(Session& session, std::uint32_t events) {
    // A client that is gone takes nothing from its queue any more; what it sent is read to the end.
    const bool gone = (events & (EPOLLHUP | EPOLLERR)) != 0;
    if (session.holdReading() && !gone) return watch(session, EPOLL_CTL_MOD, 0);
    if (session.unserved) {
        batch_.swap(session.unserved);
        const bool good = handleAll(session);
        if (session.unserved && !session.unserved->more()) session.unserved.reset();
        return good;
    }
    batch_->receive(session.main, Wait::No);
    return handleAll(session);
}

bool ServiceDelivery::handleAll(Session& session) {
    GatherScope scope(session);
    while (Packet* const packet = batch_->next()) {
        if (service_.stopped_) return true;
        scope.setMore(batch_->more());
        if (session.closed || !handle(session, *packet)) return false;
        if (batch_->more() && session.holdReading() && putAside(session)) return true;
    }
    return batch_->status() == 0 || batch_->status() == -EAGAIN;
}

// One packet may hold so many requests that their answers would not all find room. Not with descriptors: this process
// has too few of them to keep those of clients that do not read.
bool ServiceDelivery::putAside(Session& session) {
    if (batch_->hasDescriptors()) return false;
    if (!session.unserved) session.unserved = std::make_unique<PacketBatch>();
    batch_.swap(session.unserved);
    return true;
}

bool ServiceDelivery::watch(const Session& session, int operation, std::uint32_t events) const {
    epoll_event event{};
    event.events = events;
    event.data.u64 = session.id;
    return ::epoll_ctl(service_.epoll_.get(), operation, session.main.fd(), &event) == 0;
}

void ServiceDelivery::leave(SessionPtr session) {
    Call call = Call::event(NEX_NIPC_EVENT_CLIENT_DISCONNECTED, session->id);
    watch(*session, EPOLL_CTL_DEL, 0);
    active_.erase(session->id);
    session->shutdown();
    service_.forget(std::move(session));
    service_.upcall.run(call);
}

bool ServiceDelivery::handle(Session& session, Packet& packet) {
    switch (packet.header.type) {
        case FrameType::AsyncRequest:
            return handleAsync(session, packet);
        case FrameType::SyncRequest:
            return handleSync(session, packet);
        case FrameType::Share:
            return handleShare(session, packet);
        case FrameType::Buffers:
            return session.incomingBuffers.adopt(packet);
        case FrameType::Announce:
            isAnnounced_ = true;
            return packet.isBare();
        default:
            return false;
    }
}

bool ServiceDelivery::handleAsync(Session& session, Packet& packet) {
    const FrameHeader& header = packet.header;
    const bool descriptor = packet.hasDescriptor();
    if (hasOwnFrame(header.functionId) || packet.outOfLine() || descriptor) return false;
    if (isBuffered(header) && !session.incomingBuffers.fetch(packet)) return false;
    Call call;
    call.type = ASYNC_FUNCTION;
    call.peerId = session.id;
    call.functionId = header.functionId;
    call.length = header.length;
    call.status = -1;
    call.data = packet.payload;
    call.context = header.context;
    service_.upcall.run(call);
    return true;
}

bool ServiceDelivery::handleShare(Session& session, Packet& packet) {
    if (packet.header.length > kMetadataLimit) return false;
    session.acks.setDelivered(packet.header.sequence);
    IncomingShare share(packet);
    Call call;
    call.type = ASYNC_FUNCTION;
    call.peerId = session.id;
    call.functionId = SERVER_SHARE_FD_ID;
    call.length = sizeof(ShareFdMsg);
    call.status = -1;
    call.data = share.message();
    if (service_.upcall.run(call)) share.delivered();
    return true;
}

bool ServiceDelivery::handleSync(Session& session, Packet& packet) {
    const FrameHeader& header = packet.header;
    const bool descriptor = packet.hasDescriptor();
    if (hasOwnFrame(header.functionId) || packet.outOfLine() != descriptor) return false;
    if (!session.slots.wasOpened(static_cast<std::uint32_t>(header.status))) return false;
    session.setServed(static_cast<std::uint32_t>(header.status), header.sequence);
    Call call;
    call.type = SYNC_FUNCTION;
    call.peerId = session.id;
    call.functionId = header.functionId;
    call.length = header.length;
    call.status = -1;
    call.data = packet.payload;
    FrameHeader refusal;
    refusal.type = FrameType::SyncReply;
    refusal.sequence = header.sequence;
    Mapping mapping;
    std::size_t bufferSize = kInlineLimit;
    if (packet.outOfLine()) {
        int status = header.length > service_.maxSync_ ? -EMSGSIZE : packet.descriptorLost ? -EMFILE : 0;
        if (status == 0) status = mapping.map(packet.descriptor.get(), header.length);
        if (status == -EPROTO) return false;
        if (status != 0) {
            refusal.context = static_cast<std::uint64_t>(-status);
            session.slots.reply(static_cast<std::uint32_t>(header.status), refusal, nullptr, -1);
            return true;
        }
        call.data = mapping.data();
        bufferSize = header.length;
    }
    if (service_.upcall.run(call)) answer(session, header, call, bufferSize);
    return true;
}

void ServiceDelivery::answer(Session& session, const FrameHeader& request, const Call& call, std::size_t bufferSize) {
    FrameHeader header;
    header.type = FrameType::SyncReply;
    header.functionId = request.functionId;
    header.sequence = request.sequence;
    header.status = call.status;
    const auto room = static_cast<std::size_t>(std::min<std::uint64_t>(bufferSize, request.context));
    if (call.status == 0) header.length = static_cast<std::uint32_t>(std::min<std::size_t>(call.length, room));
    Fd memory;
    if (header.length > kInlineLimit) {
        const int status = makeSealedCopy(call.data, header.length, memory);
        if (status != 0) {
            header.length = 0;
            header.context = static_cast<std::uint64_t>(-status);
        }
    }
    session.slots.reply(static_cast<std::uint32_t>(request.status), header, call.data, memory.get());
}

}  // namespace nexnipc
