#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "Fd.h"
#include "Trust.h"

namespace nexnipc {

// A connection that regions are shared over.
class RegionUser {
public:
    // A region that went over it is about to be filled and shared again.
    virtual void announce() const noexcept = 0;

protected:
    ~RegionUser() = default;
};

// Where shared regions come from. Making one afresh is most of what a large transfer costs, so the memory of one
// that its receiver has acknowledged and its maker has closed is given out again, with what is in it. Only one other
// process may ever see that: the moment a second one connects, every region is made afresh, for good. The size is
// always the one asked for, so that a receiver still notices a region shorter than claimed.
class RegionPool {
public:
    static RegionPool& get();

    // A region of that size, sealed; its descriptor, or a negative errno.
    int make(const char* name, std::size_t size);

    // A connection begins: whether the peer is the one process that this one has ever met.
    bool meet(const Peer& peer);
    // It has ended; with the last one all memory is given back.
    void part(const RegionUser* connection);

    // A region is about to be shared over a connection, and waits for the acknowledgement of that number.
    // False when it has been used before and the peer is not the process that it was used with.
    bool share(int descriptor, const RegionUser* connection, std::uint32_t number, bool toTheOne);
    void acknowledged(const RegionUser* connection, std::uint32_t number);
    // The acknowledgement awaited over that connection does not come.
    void abandon(const RegionUser* connection);

private:
    enum class State { Free, Lent, Shared, Spent };
    struct Region {
        Fd memory;
        std::size_t size = 0;
        dev_t device = 0;
        ino_t inode = 0;
        State state = State::Free;
        bool usedBefore = false;
        int lent = -1;                           // the number that its descriptor has at the maker's
        const RegionUser* connection = nullptr;  // that it goes over, or went when it is free
        std::uint32_t number = 0;

        bool isAt(int descriptor) const;
        bool isHeld() const { return isAt(lent); }
        void retire();
    };
    struct ProcessId {
        pid_t pid = 0;
        uid_t uid = 0;
        std::uint64_t startedAt = 0;  // tells it from others that get its pid

        bool operator==(const ProcessId& other) const {
            return pid == other.pid && uid == other.uid && startedAt == other.startedAt;
        }
    };
    static ProcessId identify(const Peer& peer);

    bool isReusing() const { return theOne_.pid != 0 && !metOthers_ && connections_ > 0; }
    Region* findPlace(std::size_t size);
    int lend(Region& region);
    void keep(int descriptor, std::size_t size);
    void sweep();

    std::mutex mutex_;
    std::array<Region, 4> regions_;
    ProcessId theOne_;
    bool metOthers_ = false;
    unsigned connections_ = 0;
};

}  // namespace nexnipc
