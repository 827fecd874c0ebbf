#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "Lane.h"

namespace nexnipc {

// Tells those who wait for a service that its socket may have appeared. One inotify instance per process.
class Presence : public LaneSource, public std::enable_shared_from_this<Presence> {
public:
    explicit Presence(Lane& lane) : lane_(lane) {}

    // One who waits. Between refresh() and await() nothing that happens is missed.
    class Wait {
    public:
        Wait(Presence& presence, std::uint16_t uuid);
        ~Wait();
        Wait(const Wait&) = delete;
        Wait& operator=(const Wait&) = delete;

        // Watches where the socket would appear, as the directories are now; 0 or a negative errno.
        int refresh();
        // False when the deadline passed, or everything is being cancelled.
        bool await(std::chrono::steady_clock::time_point deadline);

    private:
        friend class Presence;
        int watchFor(const std::string& directory);

        Presence& presence_;
        const std::string name_;
        std::vector<std::pair<int, std::string>> watched_;  // inotify watch, and the name awaited there
        bool changed_ = false;
    };

    void cancelAll();
    void onReady(std::uint32_t events, PacketBatch& scratch) override;
    void onAbandoned() noexcept override {}

private:
    int start();
    int addWatch(int directory);
    void dropWatch(int watch);
    void notify(int watch, const char* name);

    Lane& lane_;
    std::mutex mutex_;
    std::condition_variable changed_;
    Fd inotify_;
    bool cancelled_ = false;
    std::map<int, unsigned> uses_;  // of each watch
    std::list<Wait*> waiting_;
};

}  // namespace nexnipc
