#include <poll.h>

#include <cerrno>
#include <chrono>

#include "Client.h"
#include "Process.h"

namespace nexnipc {
namespace {

using Clock = std::chrono::steady_clock;

// To the caller, a service that does not read in time.
int sendStatus(int status) { return status == -EAGAIN ? -ETIMEDOUT : status; }

}  // namespace

// What is gathered goes first, so that one request does not overtake another that was made before.
int Client::send(const FrameHeader& header, const void* payload, int descriptor) {
    int status = 0;
    if (isGathered(header, descriptor) && GatherScope::delivers(*this) && gather(header, payload, status))
        return status;
    if (anyGathered_) status = awaitGathered();
    if (status != 0) return status;
    return sendStatus(main_.send(header, payload, descriptor, Wait::Yes));
}

// False when the frame has to go by itself.
bool Client::gather(const FrameHeader& header, const void* payload, int& status) {
    const bool more = GatherScope::hasMore(*this);
    if (!more && !anyGathered_) return false;
    std::lock_guard<std::mutex> lock(gatherMutex_);
    if (!gathered_.fits(header)) return false;
    if (!timed_) timed_ = Process::get().gatherTimer->arm(shared_from_this());
    if (!timed_) return false;
    gathered_.add(header, payload);
    anyGathered_ = true;
    if (more && !isEnough(gathered_.frames(), gathered_.size())) return true;
    // One that does not go at once is accepted all the same, as it would be by the socket.
    if (flushGathered() == -ECONNRESET) status = -ECONNRESET;
    return true;
}

int Client::flushGathered() noexcept {
    const int status = gathered_.empty() ? 0 : main_.sendPacket(gathered_.bytes(), gathered_.size(), -1, Wait::No);
    if (status == -EAGAIN) return status;
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
