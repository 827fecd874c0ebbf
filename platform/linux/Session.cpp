#include "Session.h"

#include <poll.h>
#include <sys/epoll.h>

#include <cerrno>
#include <utility>

#include "Process.h"
#include "Service.h"
#include "Spin.h"
#include "Undo.h"
#include "nex_nipc.h"

namespace nexnipc {
namespace {

constexpr timespec kRoomLimit{0, 100000};

}  // namespace

Session::Session(std::uint16_t number, Peer who, PacketSocket mainSocket, PacketSocket control, Lane& lane,
                 std::shared_ptr<QueueBudget> budget, std::weak_ptr<Service> service, bool spins)
    : id(number),
      peer(who),
      apart(canRunApart(who.pid)),
      main(std::move(mainSocket)),
      acks(who, main, apart && spins),
      control_(std::move(control)),
      lane_(lane),
      service_(std::move(service)),
      queue_(std::move(budget)) {}

int Session::attach() {
    const auto self = shared_from_this();
    auto source = std::make_shared<LaneFunction>([self](PacketBatch& scratch) { self->onControl(scratch); },
                                                 [self] { self->shutdown(); });
    controlSource_ = lane_.add(control_.fd(), EPOLLIN, std::move(source));
    return controlSource_ != 0 ? 0 : -errno;
}

int Session::send(FrameHeader header, const void* payload, bool isAnswer) {
    std::unique_lock<std::mutex> lock(sendMutex_);
    if (isOver()) return -ENOTCONN;
    Undo unused([&] { buffers_.cancel(header); });
    const bool gather = gathers(header, payload, isAnswer);
    if (isAnswer && queue_.empty() && !isGathered(header) && GatherScope::delivers(*this)) {
        const int status = sendNow(header, payload, -1);
        if (status != -EAGAIN) return status;
        lock.unlock();
        const bool room = awaitRoom();
        lock.lock();
        // Queued even if there is room for it now: a client that takes one at a time would be waited for each time.
        if (!room && !isOver()) {
            if (const int failed = watchWritable()) return failed;
        }
    }
    const int status = sendLocked(header, payload, -1, isAnswer, gather);
    if (status == 0) unused.dismiss();
    return status;
}

// A client that is just taking its answers spares the next one the queue, which copies it and wakes the lane. Once one
// is queued nothing waits any more until all went.
bool Session::awaitRoom() const {
    pollfd room{main.fd(), POLLOUT, 0};
    return ::ppoll(&room, 1, &kRoomLimit, nullptr) > 0;
}

int Session::share(OutgoingShare& outgoing) {
    std::lock_guard<std::mutex> lock(sendMutex_);
    if (const int status = acks.next(outgoing.descriptor, outgoing.header.sequence)) return status;
    const int status = sendLocked(outgoing.header, outgoing.metadata, outgoing.descriptor, outgoing.isAnswer, false);
    if (status != 0) acks.cancel(outgoing.header.sequence);
    return status;
}

int Session::acknowledge() {
    FrameHeader header;
    header.type = FrameType::Ack;
    header.sequence = acks.delivered();
    const int status = control_.send(header, nullptr, -1, Wait::No);
    return status == -ECONNRESET ? -ENOTCONN : status;
}

int Session::sendLocked(const FrameHeader& header, const void* payload, int descriptor, bool isAnswer, bool gather) {
    if (isOver()) return -ENOTCONN;
    if (queue_.empty() && writableSource_ == 0 && !gather) {
        const int status = sendNow(header, payload, descriptor);
        if (status != -EAGAIN) return status;
        if (const int failed = watchWritable()) return failed;
    }
    if (const int status = queue_.push(header, payload, descriptor, isAnswer)) {
        // Where others have filled up what all queues may hold, this frame need not stand in one.
        if (writableSource_ == 0) {
            if (const int gone = flushGathered()) return gone;
            const int sent = queue_.empty() ? sendNow(header, payload, descriptor) : -EAGAIN;
            if (sent != -EAGAIN) return sent;
        }
        if (queue_.empty()) unwatchWritable();
        return status;
    }
    if (isBuffered(header)) endSending();
    const bool wait =
        writableSource_ != 0 || (gather && !isEnough(queue_.gatheredFrames(), queue_.gatheredBytes(), header));
    return wait ? 0 : flushGathered();
}

int Session::sendNow(const FrameHeader& header, const void* payload, int descriptor) const {
    const int status = main.send(header, payload, descriptor, Wait::No);
    endSending();
    return status == -ECONNRESET ? -ENOTCONN : status;
}

// Whether a frame may wait for others; not without the timer. Somebody waits for an answer.
bool Session::gathers(FrameHeader& header, const void* payload, bool isAnswer) {
    const bool more = GatherScope::hasMore(*this) || (!isAnswer && isStreaming(latest_));
    if (wantsBuffer(header) && (more || !queue_.empty()) && (writableSource_ == 0 || buffers_.offered()))
        buffers_.put(header, payload, main);
    if (!more || !isGathered(header)) return false;
    if (!timed_) timed_ = Process::get().gatherTimer->arm(shared_from_this());
    return timed_;
}

int Session::flushGathered() noexcept {
    int status = queue_.flush(main);
    endSending();
    if (status == 0) return 0;
    if (status == -ECONNRESET) {
        queue_.clear();
        return -ENOTCONN;
    }
    try {
        status = watchWritable();
    } catch (...) {
        status = -ENOMEM;
    }
    // What was accepted and cannot go would leave a gap.
    if (status != 0) main.shutdown();
    return 0;
}

void Session::sendGathered() noexcept {
    std::lock_guard<std::mutex> lock(sendMutex_);
    if (writableSource_ == 0 && !queue_.empty()) flushGathered();
}

void Session::onGatherTimer() noexcept {
    std::lock_guard<std::mutex> lock(sendMutex_);
    timed_ = false;
    if (writableSource_ == 0 && !queue_.empty()) flushGathered();
}

int Session::watchWritable() {
    if (writableSource_ != 0) return 0;
    const auto self = shared_from_this();
    auto source =
        std::make_shared<LaneFunction>([self](PacketBatch&) { self->onWritable(); }, [self] { self->shutdown(); });
    writableSource_ = lane_.add(main.fd(), EPOLLOUT, std::move(source));
    return writableSource_ != 0 ? 0 : -errno;
}

void Session::unwatchWritable() {
    lane_.remove(writableSource_);
    writableSource_ = 0;
}

void Session::onWritable() {
    bool resume = false;
    int status = 0;
    {
        std::lock_guard<std::mutex> lock(sendMutex_);
        status = queue_.flush(main);
        // Nobody reads any more: the requests that came before are served all the same.
        if (status == -ECONNRESET) {
            queue_.clear();
            status = 0;
        }
        if (queue_.empty()) unwatchWritable();
        resume = held_ && queue_.size() < SendQueue::kLowMark;
        if (resume) held_ = false;
    }
    // A frame that cannot go would leave a gap.
    if (status != 0 && status != -EAGAIN) return shutdown();
    const std::shared_ptr<Service> service = resume ? service_.lock() : nullptr;
    if (service) service->resume(id);
}

bool Session::holdReading() {
    std::lock_guard<std::mutex> lock(sendMutex_);
    // Once it is, only onWritable(), urged() and letLeave() end that: they tell the service to go on.
    const bool isMuch = queue_.size() > SendQueue::kHighMark || (writableSource_ != 0 && queue_.isCrowded());
    held_ = held_ || (!urged_ && isMuch);
    return held_;
}

void Session::setServed(std::uint32_t channel, std::uint32_t call) {
    std::lock_guard<std::mutex> lock(sendMutex_);
    served_[channel % kChannelsPerClient] = call;
    if (call == urgedCall_) urged_ = false;
}

// The client waits for that call inside its listener, where it takes nothing from its queue.
void Session::urged(std::uint32_t channel, std::uint32_t call) {
    {
        std::lock_guard<std::mutex> lock(sendMutex_);
        if (served_[channel % kChannelsPerClient] == call) return;
        urged_ = true;
        urgedCall_ = call;
        if (!std::exchange(held_, false)) return;
    }
    if (const std::shared_ptr<Service> service = service_.lock()) service->resume(id);
}

void Session::shutdown() {
    {
        std::lock_guard<std::mutex> lock(sendMutex_);
        closed = true;
        if (writableSource_ == 0) queue_.flush(main);
        unwatchWritable();
    }
    // At whose end the lane shuts down the channels.
    control_.shutdown();
    main.shutdown();
}

void Session::release(std::shared_ptr<Session> session) {
    Lane& lane = session->lane_;
    const std::uint64_t source = session->controlSource_;
    session.reset();
    lane.retire(source);
}

void Session::onControl(PacketBatch& scratch) {
    if (!closed && !readControl(scratch)) shutdown();
    if (!closed && scratch.status() != -ECONNRESET) return;
    lane_.rest(controlSource_);
    letLeave();
}

// What the client sent before is still in the main socket, whose end is the session's. It is read whatever was queued
// for the client: its own end of that socket may be under way in there, and without that would never close.
void Session::letLeave() {
    slots.shutdown();
    {
        std::lock_guard<std::mutex> lock(sendMutex_);
        leaving_ = true;
        queue_.clear();
        unwatchWritable();
        if (!std::exchange(held_, false)) return;
    }
    if (const std::shared_ptr<Service> service = service_.lock()) service->resume(id);
}

bool Session::readControl(PacketBatch& scratch) {
    scratch.receive(control_, Wait::No);
    while (const Packet* const packet = scratch.next()) {
        if (!handleControl(*packet)) return false;
    }
    return scratch.status() == 0 || scratch.status() == -EAGAIN || scratch.status() == -ECONNRESET;
}

bool Session::handleControl(const Packet& packet) {
    const FrameHeader& header = packet.header;
    if (!packet.isBare()) return false;
    const std::shared_ptr<Service> service = service_.lock();
    if (!service) return false;
    switch (header.type) {
        case FrameType::Ack:
            if (acks.accept(header.sequence)) service->acknowledged(id);
            return true;
        case FrameType::OpenChannel:
            return openChannel();
        case FrameType::CloseChannel:
            if (!slots.close(header.sequence)) return false;
            service->releaseChannel(*this);
            return true;
        case FrameType::Urge:
            urged(static_cast<std::uint32_t>(header.status), header.sequence);
            return true;
        default:
            return false;
    }
}

bool Session::openChannel() {
    FrameHeader answer;
    answer.type = FrameType::ChannelOpened;
    PacketSocket theirs;
    const std::shared_ptr<Service> service = service_.lock();
    const bool granted = service && service->reserveChannel(*this);
    const int channel = granted ? slots.open(theirs) : -EUSERS;
    int status = channel;
    if (channel >= 0) {
        answer.sequence = static_cast<std::uint32_t>(channel);
        status = control_.send(answer, nullptr, theirs.fd(), Wait::No);
        if (status == 0) return true;
        slots.close(answer.sequence);
        answer.sequence = 0;
    }
    // Also when too many descriptors are under way, which may be another process's doing.
    if (granted) service->releaseChannel(*this);
    answer.status = status;
    return control_.send(answer, nullptr, -1, Wait::No) == 0;
}

}  // namespace nexnipc
