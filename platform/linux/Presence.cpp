#include "Presence.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/inotify.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <tuple>

#include "Endpoint.h"
#include "Undo.h"

namespace nexnipc {
namespace {

constexpr std::uint32_t kEvents = IN_CREATE | IN_MOVED_TO | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

// The directory that holds `path`, and the last part of its name.
std::pair<std::string, std::string> split(const std::string& path) {
    const std::size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return {".", path};
    std::size_t end = slash;
    while (end > 0 && path[end - 1] == '/') --end;
    return {end == 0 ? "/" : path.substr(0, end), path.substr(slash + 1)};
}

Fd openPath(const std::string& path) { return Fd(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)); }

}  // namespace

Presence::Wait::Wait(Presence& presence, std::uint16_t uuid) : presence_(presence), name_(socketName(uuid)) {
    std::lock_guard<std::mutex> lock(presence_.mutex_);
    presence_.waiting_.push_back(this);
}

Presence::Wait::~Wait() {
    std::lock_guard<std::mutex> lock(presence_.mutex_);
    presence_.waiting_.remove(this);
    for (const auto& watched : watched_) presence_.dropWatch(watched.first);
}

int Presence::Wait::refresh() {
    std::vector<std::pair<int, std::string>> before;
    {
        std::lock_guard<std::mutex> lock(presence_.mutex_);
        before.swap(watched_);
        changed_ = false;
    }
    // Only then: what is watched before and after is watched without a gap.
    const Undo dropped([&] {
        std::lock_guard<std::mutex> lock(presence_.mutex_);
        for (const auto& watched : before) presence_.dropWatch(watched.first);
    });
    int status = presence_.start();
    for (const std::string& directory : searchedDirectories()) {
        if (status == 0) status = watchFor(directory);
    }
    return status;
}

// Watches the directory or, where it is missing, the nearest ancestor that is there.
int Presence::Wait::watchFor(const std::string& directory) {
    std::string path = directory;
    std::string awaited = name_;
    for (;;) {
        const Fd opened = openPath(path);
        const bool top = path == "/" || path == ".";
        if (!opened.valid() && (errno != ENOENT || top)) return errno == ENOTDIR || errno == EACCES ? 0 : -errno;
        if (opened.valid()) {
            std::lock_guard<std::mutex> lock(presence_.mutex_);
            watched_.emplace_back(-1, awaited);  // first, so that no watch is without its owner
            const int watch = presence_.addWatch(opened.get());
            watched_.back().first = watch;
            if (watch < 0) return watch == -EACCES ? 0 : watch;
        }
        const bool complete = path == directory;
        if (opened.valid() && complete) return 0;
        if (!opened.valid()) {
            std::tie(path, awaited) = split(path);
            continue;
        }
        // The missing part may have come between looking for it and watching for it.
        const std::string missing = path == "/" ? "/" + awaited : path + "/" + awaited;
        if (!openPath(missing).valid()) return 0;
        path = directory;
        awaited = name_;
    }
}

bool Presence::Wait::await(std::chrono::steady_clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(presence_.mutex_);
    presence_.changed_.wait_until(lock, deadline, [this] { return changed_ || presence_.cancelled_; });
    return changed_ && !presence_.cancelled_;
}

int Presence::start() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (inotify_.valid()) return 0;
    Fd inotify(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (!inotify.valid() || lane_.add(inotify.get(), EPOLLIN, shared_from_this()) == 0) return -errno;
    inotify_ = std::move(inotify);
    return 0;
}

int Presence::addWatch(int directory) {
    const std::string path = "/proc/self/fd/" + std::to_string(directory);
    const int watch = ::inotify_add_watch(inotify_.get(), path.c_str(), kEvents);
    if (watch < 0) return -errno;
    Undo undo([&] {
        if (uses_.count(watch) == 0) ::inotify_rm_watch(inotify_.get(), watch);
    });
    ++uses_[watch];
    undo.dismiss();
    return watch;
}

void Presence::dropWatch(int watch) {
    const auto found = uses_.find(watch);
    if (found == uses_.end() || --found->second > 0) return;
    uses_.erase(found);
    ::inotify_rm_watch(inotify_.get(), watch);
}

void Presence::onReady(std::uint32_t, PacketBatch&) {
    std::lock_guard<std::mutex> lock(mutex_);
    alignas(inotify_event) char buffer[4096];
    const ssize_t length = ::read(inotify_.get(), buffer, sizeof(buffer));
    for (ssize_t at = 0; at < length;) {
        inotify_event event{};
        std::memcpy(&event, buffer + at, sizeof(event));
        const char* name = event.len > 0 ? buffer + at + sizeof(event) : nullptr;
        if ((event.mask & IN_IGNORED) == 0) notify(event.wd, name);
        at += static_cast<ssize_t>(sizeof(event) + event.len);
    }
}

// Without a name it is the directory itself that changed; with watch -1, events were lost.
void Presence::notify(int watch, const char* name) {
    bool any = false;
    for (Wait* wait : waiting_) {
        const bool concerned =
            watch < 0 || std::any_of(wait->watched_.begin(), wait->watched_.end(), [&](const auto& watched) {
                return watched.first == watch && (name == nullptr || watched.second == name);
            });
        if (concerned) wait->changed_ = true;
        any = any || concerned;
    }
    if (any) changed_.notify_all();
}

void Presence::cancelAll() {
    std::lock_guard<std::mutex> lock(mutex_);
    cancelled_ = true;
    changed_.notify_all();
}

}  // namespace nexnipc
