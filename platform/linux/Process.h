#pragma once

#include <sys/types.h>

#include <atomic>
#include <bitset>
#include <cstdint>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "Gathering.h"
#include "Lane.h"
#include "Presence.h"

namespace nexnipc {

class Client;
class Service;

// The handles of one kind: those that are open, and those that ended while their listener was running. To end one takes
// no memory.
template <typename Object>
class HandleTable {
public:
    // False when the process is ending.
    bool add(std::int32_t handle, const std::shared_ptr<Object>& object) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!closed_) entries_.emplace(handle, Entry{object, object});
        return !closed_;
    }
    std::shared_ptr<Object> find(std::int32_t handle) {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto found = entries_.find(handle);
        return found == entries_.end() ? nullptr : found->second.open;
    }
    std::shared_ptr<Object> remove(std::int32_t handle) {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto found = entries_.find(handle);
        if (found == entries_.end()) return nullptr;
        std::shared_ptr<Object> object = std::move(found->second.open);
        for (auto entry = entries_.begin(); entry != entries_.end();) {
            entry = entry->second.alive.expired() ? entries_.erase(entry) : std::next(entry);
        }
        return object;
    }
    // Takes back an add() that nobody has made use of.
    void cancel(std::int32_t handle) noexcept {
        std::shared_ptr<Object> dropped;  // destroyed after the lock
        std::lock_guard<std::mutex> lock(mutex_);
        const auto found = entries_.find(handle);
        if (found == entries_.end()) return;
        dropped = std::move(found->second.open);
        entries_.erase(found);
    }
    // One that was removed from inside its listener, which may still be running.
    std::shared_ptr<Object> findEnded(std::int32_t handle) {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto found = entries_.find(handle);
        return found == entries_.end() ? nullptr : found->second.alive.lock();
    }
    // Everything there is, also what ended but is still running, and nothing is added after it.
    std::vector<std::shared_ptr<Object>> close() {
        std::lock_guard<std::mutex> lock(mutex_);
        closed_ = true;
        std::vector<std::shared_ptr<Object>> all;
        for (const auto& entry : entries_) {
            if (auto object = entry.second.alive.lock()) all.push_back(std::move(object));
        }
        return all;
    }

private:
    struct Entry {
        std::shared_ptr<Object> open;  // null when it ended
        std::weak_ptr<Object> alive;
    };
    std::mutex mutex_;
    bool closed_ = false;
    std::map<std::int32_t, Entry> entries_;
};

// Numbers of clients: unique among all services of the process, and not used again soon.
class ClientIds {
public:
    std::uint16_t take();  // 0: none left
    void release(std::uint16_t id);

private:
    std::mutex mutex_;
    std::uint16_t last_ = 0;
    std::bitset<65536> used_;
};

// Everything that the process has one of. Never destroyed: threads of ours may outlive main().
class Process {
public:
    static Process& get();

    // Makes the lane run; 0, or -ECANCELED at the end of the process, or why not.
    int start();
    std::int32_t nextHandle();
    // The process is ending: nothing starts any more.
    bool isQuiet() const { return quiet_; }

    Lane lane;
    HandleTable<Client> clients;
    HandleTable<Service> services;
    ClientIds clientIds;
    const std::shared_ptr<Presence> presence;
    const std::shared_ptr<GatherTimer> gatherTimer;

private:
    Process();
    static void atExit();
    void goQuiet();

    const pid_t pid_;
    std::atomic<bool> quiet_{false};
    std::atomic<std::int32_t> lastHandle_{0};
};

}  // namespace nexnipc
