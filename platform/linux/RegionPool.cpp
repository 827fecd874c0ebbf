#include "RegionPool.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "SealedMemory.h"

namespace nexnipc {
namespace {

constexpr std::size_t kKeptLimit = 8U << 20;
// What is filled while the receiver wakes up, and before it has looked for the share in vain.
constexpr std::size_t kAnnouncedLimit = 256U << 10;

// In clock ticks since the system started; 0 when unknown.
std::uint64_t startOf(pid_t pid) {
    char text[1024];
    std::snprintf(text, sizeof(text), "/proc/%d/stat", static_cast<int>(pid));
    const Fd file(::open(text, O_RDONLY | O_CLOEXEC));
    const ssize_t length = ::read(file.get(), text, sizeof(text) - 1);
    if (length <= 0) return 0;
    text[length] = '\0';
    const char* at = std::strrchr(text, ')');  // a name may hold anything
    unsigned long long start = 0;
    if (at == nullptr || std::sscanf(at + 1,
                                     " %*c %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s"
                                     " %*s %llu",
                                     &start) != 1)
        return 0;
    return start;
}

}  // namespace

RegionPool& RegionPool::get() {
    static RegionPool* const pool = new RegionPool;  // never destroyed: sessions may outlive main()
    return *pool;
}

RegionPool::ProcessId RegionPool::identify(const Peer& peer) {
    if (peer.pid <= 0) return {};  // of another pid namespace
    const std::uint64_t start = startOf(peer.pid);
    return start != 0 ? ProcessId{peer.pid, peer.uid, start} : ProcessId{};
}

bool RegionPool::meet(const Peer& peer) {
    std::lock_guard<std::mutex> lock(mutex_);
    ++connections_;
    if (metOthers_) return false;
    const ProcessId id = identify(peer);
    if (id.pid != 0 && theOne_.pid == 0) theOne_ = id;
    metOthers_ = id.pid == 0 || !(id == theOne_);
    if (!metOthers_) return true;
    for (Region& region : regions_) region.retire();
    return false;
}

void RegionPool::part(const RegionUser* connection) {
    abandon(connection);
    std::lock_guard<std::mutex> lock(mutex_);
    for (Region& region : regions_) {
        if (region.connection == connection) region.connection = nullptr;
    }
    if (--connections_ > 0) return;
    for (Region& region : regions_) region.retire();
}

int RegionPool::make(const char* name, std::size_t size) {
    std::lock_guard<std::mutex> lock(mutex_);
    const bool reusing = isReusing();
    if (!reusing) sweep();
    for (Region& region : regions_) {
        if (reusing && region.state == State::Free && region.size == size && !region.isHeld()) return lend(region);
    }
    Fd made;
    if (const int status = makeSealedRegion(name, size, made)) return status;
    if (reusing) keep(made.get(), size);
    return made.release();
}

int RegionPool::lend(Region& region) {
    const int descriptor = ::fcntl(region.memory.get(), F_DUPFD_CLOEXEC, 0);
    if (descriptor < 0) return -errno;
    region.lent = descriptor;
    region.state = State::Lent;
    region.usedBefore = true;
    if (region.connection != nullptr && region.size <= kAnnouncedLimit) region.connection->announce();
    return descriptor;
}

void RegionPool::keep(int descriptor, std::size_t size) {
    if (size > kKeptLimit) return;
    Region* place = findPlace(size);
    if (place == nullptr) {
        sweep();
        place = findPlace(size);
    }
    struct stat status {};
    if (place == nullptr || ::fstat(descriptor, &status) != 0) return;
    Fd memory(::fcntl(descriptor, F_DUPFD_CLOEXEC, 0));
    if (!memory.valid()) return;
    place->memory = std::move(memory);
    place->size = size;
    place->device = status.st_dev;
    place->inode = status.st_ino;
    place->lent = descriptor;
    place->state = State::Lent;
}

RegionPool::Region* RegionPool::findPlace(std::size_t size) {
    Region* place = nullptr;
    for (Region& region : regions_) {
        size += region.size;
        if (!region.memory.valid()) place = &region;
    }
    return size <= kKeptLimit ? place : nullptr;
}

void RegionPool::sweep() {
    for (Region& region : regions_) {
        if (region.memory.valid() && !region.isHeld()) region = Region();
    }
}

bool RegionPool::share(int descriptor, const RegionUser* connection, std::uint32_t number, bool toTheOne) {
    abandon(connection);  // only the latest share can be acknowledged
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = std::find_if(regions_.begin(), regions_.end(), [&](const Region& region) {
        return region.memory.valid() && region.isAt(descriptor);
    });
    if (found == regions_.end()) return true;
    const bool secret = found->usedBefore && !toTheOne;
    // Shared again, or under another number: its maker has plans of its own with it.
    const bool simple = found->state == State::Lent && found->lent == descriptor && isReusing();
    if (!simple) found->retire();
    if (!simple || secret) return !secret;
    found->state = State::Shared;
    found->connection = connection;
    found->number = number;
    return true;
}

void RegionPool::acknowledged(const RegionUser* connection, std::uint32_t number) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (Region& region : regions_) {
        if (region.state != State::Shared || region.connection != connection || region.number != number) continue;
        region.state = State::Free;
    }
}

void RegionPool::abandon(const RegionUser* connection) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (Region& region : regions_) {
        if (region.state == State::Shared && region.connection == connection) region.retire();
    }
}

bool RegionPool::Region::isAt(int descriptor) const {
    struct stat status {};
    return ::fstat(descriptor, &status) == 0 && status.st_ino == inode && status.st_dev == device;
}

// Not to be used again; forgotten, but while its maker may still want to share what others must not see.
void RegionPool::Region::retire() {
    if (!memory.valid()) return;
    connection = nullptr;
    state = State::Spent;
    if (!usedBefore || !isHeld()) *this = Region();
}

}  // namespace nexnipc
