#include "StopSignal.h"

#include <pthread.h>

#include <csignal>
#include <thread>
#include <utility>

namespace nipcctl {

void onStopSignal(std::function<void()> stop) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::thread([signals, stop = std::move(stop)] {
        int signal = 0;
        sigwait(&signals, &signal);
        stop();
    }).detach();
}

}  // namespace nipcctl
