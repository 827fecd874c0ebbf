#include <poll.h>

#include <cerrno>
#include <chrono>

#include "Client.h"
#include "Process.h"
#include "Undo.h"

namespace nexnipc {
namespace {

using Clock = std::chrono::steady_clock;

// To the caller, a service that does not read in time.
int sendStatus(int status) { return status == -EAGAIN ? -ETIMEDOUT : status; }

}  // namespace

// What is gathered goes first, so that one request does not overtake another that was made before.
int Client::send(const FrameHeader& header, const void* payload, int descriptor) {
    if (descriptor < 0 && sharesPacket(header.type) && GatherScope::delivers(*this)) {
        const int status = sendFromListener(header, payload);
        if (status != -ENOBUFS) return status;
    }
    if (anyGathered_) {
        if (const int status = awaitGathered()) return status;
    }
    return sendStatus(main_.send(header, payload, descriptor, Wait::Yes));
}

// The delivery thread had better go on reading than wait for a service that may be waiting for it. -ENOBUFS when too
// much is queued for that.
int Client::sendFromListener(FrameHeader header, const void* payload) {
    std::lock_guard<std::mutex> lock(gatherMutex_);
    Undo unused([&] { buffers_.cancel(header); });
    bool gather = GatherScope::hasMore(*this);
    if (wantsBuffer(header) && (gather || !gathered_.empty()) && (!full_ || buffers_.offered()))
        buffers_.put(header, payload, main_);
    gather = gather && isGathered(header);
    if (gather && !timed_) gather = timed_ = Process::get().gatherTimer->arm(shared_from_this());
    if (gathered_.empty() && !gather) {
        const int status = main_.send(header, payload, -1, Wait::No);
        if (status == 0) unused.dismiss();
        if (status != -EAGAIN) return status;
        full_ = true;
    }
    if (const int status = gathered_.push(header, payload, -1, false)) return status;
    unused.dismiss();
    anyGathered_ = true;
    if (full_ || (gather && !isEnough(gathered_.gatheredFrames(), gathered_.gatheredBytes(), header))) return 0;
    return flushGathered() == -ECONNRESET ? -ECONNRESET : 0;
}

int Client::flushGathered() noexcept {
    const int status = gathered_.flush(main_);
    full_ = status == -EAGAIN;
    if (full_) return status;
    gathered_.clear();
    anyGathered_ = false;
    // What was accepted and cannot go would leave a gap.
    if (status != 0 && status != -ECONNRESET) main_.shutdown();
    return status;
}

// Waits until the service takes what is gathered, as long as it may take one request.
int Client::awaitGathered() {
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(kSendLimitMs);
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(gatherMutex_);
            const int status = flushGathered();
            if (status != -EAGAIN) return status;
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) return -ETIMEDOUT;
        pollfd ready{main_.fd(), POLLOUT, 0};
        ::poll(&ready, 1, static_cast<int>(left));
    }
}

void Client::sendGathered() noexcept {
    if (!anyGathered_) return;
    std::lock_guard<std::mutex> lock(gatherMutex_);
    flushGathered();
}

void Client::onGatherTimer() noexcept {
    std::lock_guard<std::mutex> lock(gatherMutex_);
    timed_ = false;
    flushGathered();
}

}  // namespace nexnipc
