#pragma once

#include <chrono>

namespace nexnipc {

// Whether a call on a socket that a signal interrupted may be begun again. It has the socket's whole time limit
// each time, so that signals that keep coming would make it endless. The clock is read only when one has come.
class Restart {
public:
    // `limit` is SO_SNDTIMEO or SO_RCVTIMEO.
    Restart(int socket, int limit) : socket_(socket), limit_(limit) {}

    // To be asked after EINTR.
    bool allowed();

private:
    using Clock = std::chrono::steady_clock;

    const int socket_;
    const int limit_;
    bool asked_ = false;
    Clock::time_point deadline_;
};

}  // namespace nexnipc
