#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <unordered_map>
#include <utility>

#include "Fd.h"
#include "PacketBatch.h"

namespace nexnipc {

class Lane;

// Something that the lane watches.
class LaneSource {
public:
    virtual ~LaneSource() = default;
    // `scratch` is for whatever packets it wants to read; descriptors left there are closed. It must not block.
    virtual void onReady(std::uint32_t events, PacketBatch& scratch) = 0;
    virtual void onDeadline() {}
    // Memory ran out in one of the above; whatever was being done is given up.
    virtual void onAbandoned() noexcept = 0;

protected:
    std::uint64_t laneId() const { return laneId_; }

private:
    friend class Lane;
    std::uint64_t laneId_ = 0;
};

// A source whose owner handles the events, and is kept alive by the captures.
class LaneFunction : public LaneSource {
public:
    LaneFunction(std::function<void(PacketBatch&)> ready, std::function<void()> abandoned)
        : ready_(std::move(ready)), abandoned_(std::move(abandoned)) {}
    void onReady(std::uint32_t, PacketBatch& scratch) override { ready_(scratch); }
    void onAbandoned() noexcept override { abandoned_(); }

private:
    const std::function<void(PacketBatch&)> ready_;
    const std::function<void()> abandoned_;
};

// The one thread per process that does what must go on while delivery threads are inside listeners: accepting,
// handshakes, acknowledgements, opening channels, flushing queues, and noticing that services appear.
class Lane {
public:
    using Clock = std::chrono::steady_clock;

    // Starts the thread, once; 0 or a negative errno.
    int start();

    // Any thread. A source is kept alive until it is removed, and while it is being called.
    // Returns its number, or 0 with errno set.
    std::uint64_t add(int fd, std::uint32_t events, std::shared_ptr<LaneSource> source);
    void remove(std::uint64_t id);
    // Watches it no more, and keeps it.
    void rest(std::uint64_t id);
    // Removes it on the lane's thread, so that this one need not wait for what goes with it. Its descriptor must be at
    // its end.
    void retire(std::uint64_t id);

    // On the lane's thread only.
    void watch(std::uint64_t id, std::uint32_t events);
    void setDeadline(std::uint64_t id, Clock::time_point deadline);

    static bool isCurrentThread();

private:
    struct Entry {
        int fd;
        std::shared_ptr<LaneSource> source;
        Clock::time_point deadline;
        bool retired = false;
    };

    void run();
    int nextTimeout();
    void runDeadlines(Clock::time_point now);
    std::shared_ptr<LaneSource> find(std::uint64_t id);
    std::shared_ptr<LaneSource> take(std::unordered_map<std::uint64_t, Entry>::iterator found);
    void clearDeadline(std::uint64_t id, Entry& entry);

    std::mutex mutex_;
    bool started_ = false;
    Fd epoll_;
    std::unique_ptr<PacketBatch> scratch_;
    std::uint64_t lastId_ = 0;
    std::unordered_map<std::uint64_t, Entry> entries_;
    std::set<std::pair<Clock::time_point, std::uint64_t>> deadlines_;
};

}  // namespace nexnipc
