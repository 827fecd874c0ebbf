#include "SharedBuffers.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <new>

#include "SealedMemory.h"

namespace nexnipc {
namespace {

constexpr std::size_t kControlSize = 4096;
constexpr std::size_t kSize = kControlSize + SharedBuffers::kCount * std::size_t{kInlineLimit};
constexpr unsigned kBeforeOffer = 64;
// Of one process: a megabyte each.
constexpr unsigned kReceivers = 16;
constexpr unsigned kSenders = 64;

std::atomic<unsigned> receivers{0};
std::atomic<unsigned> senders{0};

bool takePlace(std::atomic<unsigned>& taken, unsigned limit) {
    if (taken.fetch_add(1) < limit) return true;
    --taken;
    return false;
}

}  // namespace

// Each side writes to a cache line of its own.
struct SharedBuffers::Control {
    std::atomic<std::uint32_t> ready;
    alignas(64) std::atomic<std::uint32_t> released[2];
};
static_assert(std::atomic<std::uint32_t>::is_always_lock_free && SharedBuffers::kCount == 64);

SharedBuffers::~SharedBuffers() {
    if (mapped()) ::munmap(control_, kSize);
}

int SharedBuffers::make(Fd& region) {
    // Beyond that limit there would be a signal.
    rlimit limit{};
    if (::getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur < kSize) return -EFBIG;
    if (const int status = makeSealedRegion("nipc-buffers", kSize, region)) return status;
    // Now, when want of memory is an error; at the first touch of a page it is a signal.
    int status = 0;
    do {
        status = ::fallocate(region.get(), 0, 0, static_cast<off_t>(kSize));
    } while (status != 0 && errno == EINTR);
    return status == 0 ? 0 : -errno;
}

int SharedBuffers::map(int region) {
    if (!isSealedRegion(region, kSize)) return -EPROTO;
    void* const mapped = ::mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED, region, 0);
    if (mapped == MAP_FAILED) return -errno;
    control_ = static_cast<Control*>(mapped);
    return 0;
}

void SharedBuffers::setReady() { control_->ready.store(1, std::memory_order_release); }

bool SharedBuffers::isReady() const { return control_->ready.load(std::memory_order_acquire) == 1; }

void SharedBuffers::release(unsigned number) {
    control_->released[number / 32].fetch_or(1U << number % 32, std::memory_order_release);
}

std::uint64_t SharedBuffers::takeReleased() {
    std::uint64_t all = 0;
    for (unsigned half = 0; half < 2; ++half) {
        std::atomic<std::uint32_t>& released = control_->released[half];
        if (released.load(std::memory_order_relaxed) == 0) continue;
        all |= std::uint64_t{released.exchange(0, std::memory_order_acquire)} << half * 32;
    }
    return all;
}

char* SharedBuffers::at(unsigned number) const {
    return reinterpret_cast<char*>(control_) + kControlSize + number * std::size_t{kInlineLimit};
}

SendBuffers::~SendBuffers() {
    if (counted_) --receivers;
}

SendBuffers::State SendBuffers::make() {
    if (!takePlace(receivers, kReceivers)) {
        wanted_ = 0;  // Asks again later.
        return State::None;
    }
    counted_ = SharedBuffers::make(region_) == 0 && memory_.map(region_.get()) == 0;
    if (counted_) return State::Made;
    --receivers;
    return State::Impossible;
}

bool SendBuffers::offer(const PacketSocket& socket) {
    if (state_ == State::None) state_ = make();
    if (state_ == State::Made) {
        FrameHeader header;
        header.type = FrameType::Buffers;
        const int status = socket.send(header, nullptr, region_.get(), Wait::No);
        if (status == -EAGAIN) return false;
        state_ = status == 0 ? State::Offered : State::Impossible;
    }
    region_.reset();
    return state_ == State::Offered && memory_.isReady();
}

bool SendBuffers::put(FrameHeader& header, const void* payload, const PacketSocket& socket) {
    if (wanted_ < kBeforeOffer) ++wanted_;
    if (wanted_ < kBeforeOffer || !offer(socket)) return false;
    free_ |= memory_.takeReleased();
    if (free_ == 0) return false;
    // The lowest: what was used last is still in the cache.
    const auto number = static_cast<unsigned>(__builtin_ctzll(free_));
    free_ &= free_ - 1;
    std::memcpy(memory_.at(number), payload, header.length);
    header.status = static_cast<std::int32_t>(number) + 1;
    return true;
}

void SendBuffers::cancel(const FrameHeader& header) {
    if (isBuffered(header)) free_ |= std::uint64_t{1} << (header.status - 1);
}

ReceiveBuffers::~ReceiveBuffers() {
    if (counted_) --senders;
}

bool ReceiveBuffers::adopt(const Packet& packet) {
    if (offered_ || packet.header.length != 0 || !packet.hasDescriptor()) return false;
    offered_ = true;
    copy_.reset(new (std::nothrow) char[kInlineLimit]);
    if (!copy_ || packet.descriptorLost || !takePlace(senders, kSenders)) return true;
    const int status = memory_.map(packet.descriptor.get());
    counted_ = status == 0;
    if (counted_) {
        memory_.setReady();
    } else {
        --senders;
    }
    return status != -EPROTO;
}

bool ReceiveBuffers::fetch(Packet& packet) {
    const std::int32_t number = packet.header.status;
    if (!memory_.mapped() || number < 1 || number > static_cast<std::int32_t>(SharedBuffers::kCount)) return false;
    std::memcpy(copy_.get(), memory_.at(static_cast<unsigned>(number - 1)), packet.header.length);
    memory_.release(static_cast<unsigned>(number - 1));
    packet.payload = copy_.get();
    return true;
}

}  // namespace nexnipc
