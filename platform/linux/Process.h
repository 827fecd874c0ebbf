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

#include "Lane.h"
#include "Presence.h"

namespace nexnipc {

class Client;
class Service;

// The open handles of one kind.
template <typename Object>
class HandleTable {
public:
    // False when the process is ending.
    bool add(std::int32_t handle, std::shared_ptr<Object> object) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (closed_) return false;
        objects_.emplace(handle, std::move(object));
        return true;
    }
    std::shared_ptr<Object> find(std::int32_t handle) {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto found = objects_.find(handle);
        return found == objects_.end() ? nullptr : found->second;
    }
    std::shared_ptr<Object> remove(std::int32_t handle) {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto found = objects_.find(handle);
        if (found == objects_.end()) return nullptr;
        ended_.emplace(handle, found->second);
        std::shared_ptr<Object> object = std::move(found->second);
        objects_.erase(found);
        for (auto ended = ended_.begin(); ended != ended_.end();) {
            ended = ended->second.expired() ? ended_.erase(ended) : std::next(ended);
        }
        return object;
    }
    // Takes back an add() that nobody has made use of.
    void cancel(std::int32_t handle) noexcept {
        std::shared_ptr<Object> dropped;  // destroyed after the lock
        std::lock_guard<std::mutex> lock(mutex_);
        const auto found = objects_.find(handle);
        if (found == objects_.end()) return;
        dropped = std::move(found->second);
        objects_.erase(found);
    }
    // One that was removed from inside its listener, which may still be running.
    std::shared_ptr<Object> findEnded(std::int32_t handle) {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto found = ended_.find(handle);
        return found == ended_.end() ? nullptr : found->second.lock();
    }
    // Everything there is, also what ended but is still running, and nothing is added after it.
    std::vector<std::shared_ptr<Object>> close() {
        std::lock_guard<std::mutex> lock(mutex_);
        closed_ = true;
        std::vector<std::shared_ptr<Object>> all;
        for (const auto& entry : objects_) all.push_back(entry.second);
        for (const auto& entry : ended_) {
            if (auto object = entry.second.lock()) all.push_back(std::move(object));
        }
        return all;
    }

private:
    std::mutex mutex_;
    bool closed_ = false;
    std::map<std::int32_t, std::shared_ptr<Object>> objects_;
    std::map<std::int32_t, std::weak_ptr<Object>> ended_;
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

private:
    Process();
    static void atExit();
    void goQuiet();

    const pid_t pid_;
    std::atomic<bool> quiet_{false};
    std::atomic<std::int32_t> lastHandle_{0};
};

}  // namespace nexnipc
