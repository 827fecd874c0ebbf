// What the linker puts in the place of locks, waits, thread starts and the steady clock (--wrap), in the connector's
// code and in this program's. Threads that no schedule governs get the real ones, but for the clock.
#include <pthread.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <ctime>

#include "Scheduler.h"

using interleaving::Scheduler;

#define START_THREAD "_ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE"
#define NOTIFY_ALL "_ZNSt18condition_variable10notify_allEv"
#define STEADY_NOW "_ZNSt6chrono3_V212steady_clock3nowEv"

int realLock(pthread_mutex_t*) __asm__("__real_pthread_mutex_lock");
int realTryLock(pthread_mutex_t*) __asm__("__real_pthread_mutex_trylock");
int realUnlock(pthread_mutex_t*) __asm__("__real_pthread_mutex_unlock");
int realWait(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*) __asm__("__real_pthread_cond_clockwait");
void realNotify(std::condition_variable*) __asm__("__real_" NOTIFY_ALL);
void realStart(void* thread, void* state, void (*depend)()) __asm__("__real_" START_THREAD);

int lock(pthread_mutex_t*) __asm__("__wrap_pthread_mutex_lock");
int tryLock(pthread_mutex_t*) __asm__("__wrap_pthread_mutex_trylock");
int unlock(pthread_mutex_t*) __asm__("__wrap_pthread_mutex_unlock");
int waitUntil(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*) __asm__("__wrap_pthread_cond_clockwait");
void notify(std::condition_variable*) __asm__("__wrap_" NOTIFY_ALL);
void start(void* thread, void* state, void (*depend)()) __asm__("__wrap_" START_THREAD);
std::chrono::steady_clock::time_point now() __asm__("__wrap_" STEADY_NOW);

namespace {
Scheduler& scheduler() { return Scheduler::instance(); }
}  // namespace

int lock(pthread_mutex_t* mutex) {
    if (!scheduler().governs()) return realLock(mutex);
    scheduler().yield();
    int result = realTryLock(mutex);
    for (; result == EBUSY; result = realTryLock(mutex)) scheduler().wait(mutex);
    return result;
}

int tryLock(pthread_mutex_t* mutex) {
    if (scheduler().governs()) scheduler().yield();
    return realTryLock(mutex);
}

int unlock(pthread_mutex_t* mutex) {
    const int result = realUnlock(mutex);
    if (scheduler().governs()) scheduler().wake(mutex);
    return result;
}

int waitUntil(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock, const timespec* deadline) {
    if (!scheduler().governs()) return realWait(condition, mutex, clock, deadline);
    const auto seconds = static_cast<std::uint64_t>(deadline->tv_sec);
    unlock(mutex);
    const bool woken =
        scheduler().wait(condition, seconds * 1'000'000'000U + static_cast<std::uint64_t>(deadline->tv_nsec));
    lock(mutex);
    return woken ? 0 : ETIMEDOUT;
}

void notify(std::condition_variable* condition) {
    realNotify(condition);
    if (scheduler().governs()) scheduler().wake(condition->native_handle());
}

void start(void* thread, void* state, void (*depend)()) {
    if (!scheduler().governs()) return realStart(thread, state, depend);
    scheduler().startThread([&] { realStart(thread, state, depend); });
}

std::chrono::steady_clock::time_point now() {
    return std::chrono::steady_clock::time_point(std::chrono::nanoseconds(scheduler().now()));
}
