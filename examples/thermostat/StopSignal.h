#pragma once

#include <pthread.h>

#include <chrono>
#include <csignal>

namespace thermostat {

inline sigset_t stopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    return signals;
}

/// Keeps SIGINT and SIGTERM for stopRequested(). Call it before anything starts a thread.
inline void holdStopSignals() {
    const sigset_t signals = stopSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

/// Waits up to `wait` for one of them; true once it has come.
inline bool stopRequested(std::chrono::milliseconds wait) {
    const sigset_t signals = stopSignals();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(wait);
    timespec timeout{};
    timeout.tv_sec = static_cast<time_t>(seconds.count());
    timeout.tv_nsec = static_cast<long>(std::chrono::nanoseconds(wait - seconds).count());
    return sigtimedwait(&signals, nullptr, &timeout) > 0;
}

}  // namespace thermostat
