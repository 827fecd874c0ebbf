#include "Lane.h"

#include <sys/epoll.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "Thread.h"

namespace nexnipc {
namespace {

thread_local bool onLane = false;

template <typename Work>
void guarded(const std::shared_ptr<LaneSource>& source, Work work) {
    try {
        work();
    } catch (...) {
        source->onAbandoned();
    }
}

}  // namespace

bool Lane::isCurrentThread() { return onLane; }

int Lane::start() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (started_) return 0;
    if (!epoll_.valid()) epoll_.reset(::epoll_create1(EPOLL_CLOEXEC));
    if (!epoll_.valid()) return -errno;
    if (!scratch_) scratch_ = std::make_unique<PacketBatch>();
    const int status = startThread("nipc-lane", [this] { run(); });
    started_ = status == 0;
    return status;
}

std::uint64_t Lane::add(int fd, std::uint32_t events, std::shared_ptr<LaneSource> source) {
    std::lock_guard<std::mutex> lock(mutex_);
    const std::uint64_t id = ++lastId_;
    source->laneId_ = id;
    entries_.emplace(id, Entry{fd, std::move(source), Clock::time_point::max()});
    epoll_event event{};
    event.events = events;
    event.data.u64 = id;
    if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) == 0) return id;
    const int error = errno;
    entries_.erase(id);
    errno = error;
    return 0;
}

void Lane::remove(std::uint64_t id) {
    std::shared_ptr<LaneSource> dropped;  // destroyed after the lock
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = entries_.find(id);
    if (found == entries_.end()) return;
    dropped = take(found);
}

std::shared_ptr<LaneSource> Lane::take(std::unordered_map<std::uint64_t, Entry>::iterator found) {
    ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, found->second.fd, nullptr);
    clearDeadline(found->first, found->second);
    std::shared_ptr<LaneSource> source = std::move(found->second.source);
    entries_.erase(found);
    return source;
}

void Lane::rest(std::uint64_t id) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = entries_.find(id);
    if (found != entries_.end() && !found->second.retired)
        ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, found->second.fd, nullptr);
}

void Lane::retire(std::uint64_t id) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto found = entries_.find(id);
        if (found == entries_.end()) return;
        found->second.retired = true;
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u64 = id;
        ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, found->second.fd, nullptr);
        if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, found->second.fd, &event) == 0) return;
    }
    remove(id);
}

void Lane::watch(std::uint64_t id, std::uint32_t events) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = entries_.find(id);
    if (found == entries_.end()) return;
    epoll_event event{};
    event.events = events;
    event.data.u64 = id;
    ::epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, found->second.fd, &event);
}

void Lane::setDeadline(std::uint64_t id, Clock::time_point deadline) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = entries_.find(id);
    if (found == entries_.end()) return;
    clearDeadline(id, found->second);
    found->second.deadline = deadline;
    deadlines_.emplace(deadline, id);
}

void Lane::clearDeadline(std::uint64_t id, Entry& entry) {
    if (entry.deadline != Clock::time_point::max()) deadlines_.erase({entry.deadline, id});
    entry.deadline = Clock::time_point::max();
}

std::shared_ptr<LaneSource> Lane::find(std::uint64_t id) {
    std::shared_ptr<LaneSource> dropped;  // destroyed after the lock
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = entries_.find(id);
    if (found == entries_.end()) return nullptr;
    if (!found->second.retired) return found->second.source;
    dropped = take(found);
    return nullptr;
}

int Lane::nextTimeout() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (deadlines_.empty()) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadlines_.begin()->first - Clock::now()).count();
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, 60000));
}

void Lane::runDeadlines(Clock::time_point now) {
    for (;;) {
        std::shared_ptr<LaneSource> source;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (deadlines_.empty() || deadlines_.begin()->first > now) return;
            Entry& entry = entries_.find(deadlines_.begin()->second)->second;
            clearDeadline(deadlines_.begin()->second, entry);
            source = entry.source;
        }
        guarded(source, [&] { source->onDeadline(); });
    }
}

void Lane::run() {
    onLane = true;
    std::array<epoll_event, 32> events{};
    for (;;) {
        const int count = ::epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()), nextTimeout());
        for (int i = 0; i < count; ++i) {
            const epoll_event& event = events[static_cast<std::size_t>(i)];
            const std::shared_ptr<LaneSource> source = find(event.data.u64);
            if (source) guarded(source, [&] { source->onReady(event.events, *scratch_); });
            scratch_->discard();
        }
        runDeadlines(Clock::now());
    }
}

}  // namespace nexnipc
