#include "Restart.h"

#include <sys/socket.h>
#include <sys/time.h>

namespace nexnipc {

bool Restart::allowed() {
    const Clock::time_point now = Clock::now();
    if (asked_) return now < deadline_;
    asked_ = true;
    timeval limit{};
    socklen_t size = sizeof(limit);
    ::getsockopt(socket_, SOL_SOCKET, limit_, &limit, &size);
    const bool none = limit.tv_sec == 0 && limit.tv_usec == 0;
    deadline_ = none ? Clock::time_point::max()
                     : now + std::chrono::seconds(limit.tv_sec) + std::chrono::microseconds(limit.tv_usec);
    return true;
}

}  // namespace nexnipc
