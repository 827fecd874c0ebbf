#include "Thread.h"

#include <pthread.h>

#include <csignal>
#include <memory>
#include <string>

namespace nexnipc {
namespace {

struct Start {
    std::string name;
    std::function<void()> body;
};

void* run(void* argument) {
    const std::unique_ptr<Start> start(static_cast<Start*>(argument));
    ::pthread_setname_np(::pthread_self(), start->name.c_str());
    start->body();
    return nullptr;
}

}  // namespace

int startThread(const char* name, std::function<void()> body) {
    auto start = std::make_unique<Start>(Start{std::string(name).substr(0, 15), std::move(body)});
    sigset_t blocked;
    sigset_t before;
    ::sigfillset(&blocked);
    // The faults of a thread's own code stay open, for whoever reports crashes.
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS}) ::sigdelset(&blocked, fault);
    ::pthread_sigmask(SIG_SETMASK, &blocked, &before);
    pthread_attr_t attributes;
    ::pthread_attr_init(&attributes);
    ::pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t thread{};
    const int error = ::pthread_create(&thread, &attributes, run, start.get());
    ::pthread_attr_destroy(&attributes);
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (error == 0) static_cast<void>(start.release());  // now the thread's
    return -error;
}

}  // namespace nexnipc
