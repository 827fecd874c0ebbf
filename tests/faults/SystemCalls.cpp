#include "SystemCalls.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <vector>

namespace nipctest {
namespace {

struct Site {
    std::uintptr_t address;
    const char* function;
    unsigned passes;
};

struct Fault {
    std::uintptr_t address;
    std::string function;
    unsigned pass;
    int error;
};

std::mutex mutex;
std::array<Site, 512> sites{};
std::size_t siteCount = 0;
std::vector<Fault> planned;

std::atomic<bool> armed{false};
std::atomic<unsigned> caused{0};
std::atomic<unsigned> allocations[2]{};
unsigned shortage[2]{};
std::atomic<std::ptrdiff_t> live{0};
thread_local bool own = false;

// The error that this pass is to fail with, or 0.
int errorOf(const char* function, const void* returnAddress) {
    if (!armed) return 0;
    const auto address = reinterpret_cast<std::uintptr_t>(returnAddress);
    const std::lock_guard<std::mutex> lock(mutex);
    std::size_t i = 0;
    while (i < siteCount && (sites[i].address != address || std::strcmp(sites[i].function, function) != 0)) ++i;
    if (i == sites.size()) std::abort();
    if (i == siteCount) sites[siteCount++] = {address, function, 0};
    ++sites[i].passes;
    for (const Fault& fault : planned) {
        if (fault.address != address || fault.function != function || fault.pass != sites[i].passes) continue;
        ++caused;
        return fault.error;
    }
    return 0;
}

// What the kernel does when the receiver has no descriptor to spare.
void passDescriptors(msghdr& message, const char* kind, const void* site) {
    if (message.msg_controllen == 0 || errorOf(kind, site) == 0) return;
    for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr; part = CMSG_NXTHDR(&message, part)) {
        for (std::size_t at = CMSG_LEN(0); at + sizeof(int) <= part->cmsg_len; at += sizeof(int)) {
            int descriptor = -1;
            std::memcpy(&descriptor, reinterpret_cast<char*>(part) + at, sizeof(descriptor));
            close(descriptor);
        }
        message.msg_flags |= MSG_CTRUNC;
    }
    message.msg_controllen = 0;
}

template <typename Function>
Function original(const char* name) {
    void* const found = dlsym(RTLD_NEXT, name);
    Function function = nullptr;
    std::memcpy(&function, &found, sizeof(function));
    return function;
}

// A socket that says so is at its end.
int endIfReset(int socket, int error) {
    if (error == EPIPE || error == ECONNRESET) original<int (*)(int, int)>("shutdown")(socket, SHUT_RDWR);
    return error;
}

template <typename Result>
Result failed(int error) {
    errno = error;
    return Result(-1);
}
template <>
void* failed<void*>(int error) {
    errno = error;
    return reinterpret_cast<void*>(-1);  // MAP_FAILED
}

void* allocate(std::size_t size, bool throwing) {
    if (armed && !own && ++allocations[throwing] == shortage[throwing]) return ++caused, nullptr;
    void* const block = std::malloc(size > 0 ? size : 1);
    if (block != nullptr) ++live;
    return block;
}

void release(void* block) {
    if (block != nullptr) --live;
    std::free(block);
}

}  // namespace

void planFault(std::uintptr_t site, const std::string& function, unsigned pass, int error) {
    planned.push_back({site, function, pass, error});
}
void planShortage(bool throwing, unsigned n) { shortage[throwing] = n; }
void armFaults() { armed = true; }
void disarmFaults() { armed = false; }
unsigned faultsCaused() { return caused; }
std::ptrdiff_t liveAllocations() { return live; }

void sayPasses() {
    const std::lock_guard<std::mutex> lock(mutex);
    for (std::size_t i = 0; i < siteCount; ++i) {
        std::printf("site %zx %s %u\n", static_cast<std::size_t>(sites[i].address), sites[i].function, sites[i].passes);
    }
    std::printf("allocations %u %u\n", allocations[true].load(), allocations[false].load());
}

unsigned passesOf(const char* function) {
    const std::lock_guard<std::mutex> lock(mutex);
    unsigned passes = 0;
    for (std::size_t i = 0; i < siteCount; ++i) {
        if (std::strcmp(sites[i].function, function) == 0) passes += sites[i].passes;
    }
    return passes;
}

OwnAllocations::OwnAllocations(bool isOwn) : before_(own) { own = isOwn; }
OwnAllocations::~OwnAllocations() { own = before_; }

}  // namespace nipctest

using nipctest::endIfReset;
using nipctest::errorOf;
using nipctest::failed;
using nipctest::original;

void* operator new(std::size_t size) {
    void* const block = nipctest::allocate(size, true);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return nipctest::allocate(size, false); }
void operator delete(void* block) noexcept { nipctest::release(block); }
void operator delete(void* block, std::size_t) noexcept { nipctest::release(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { nipctest::release(block); }

// Names of their own in C++, the system's for the linker: its headers declare some of them otherwise.
#define NIPCTEST_STAND_IN(result, name, parameters)                                                               \
    extern "C" __attribute__((visibility("default"), noinline)) result nipctest_##name parameters __asm__(#name); \
    extern "C" result nipctest_##name parameters

#define NIPCTEST_CALL(result, name, parameters, arguments)                                               \
    NIPCTEST_STAND_IN(result, name, parameters) {                                                        \
        static const auto real = original<result(*) parameters>(#name);                                  \
        if (const int error = errorOf(#name, __builtin_return_address(0))) return failed<result>(error); \
        return real arguments;                                                                           \
    }

#define NIPCTEST_OPTIONAL(result, name, parameters, last, arguments)                                     \
    NIPCTEST_STAND_IN(result, name, parameters) {                                                        \
        static const auto real = original<result(*) parameters>(#name);                                  \
        if (const int error = errorOf(#name, __builtin_return_address(0))) return failed<result>(error); \
        std::va_list optional;                                                                           \
        va_start(optional, last);                                                                        \
        void* const argument = va_arg(optional, void*);                                                  \
        va_end(optional);                                                                                \
        return real arguments;                                                                           \
    }

NIPCTEST_CALL(int, socket, (int domain, int type, int protocol), (domain, type, protocol))
NIPCTEST_CALL(int, connect, (int fd, const void* address, socklen_t size), (fd, address, size))
NIPCTEST_CALL(int, bind, (int fd, const void* address, socklen_t size), (fd, address, size))
NIPCTEST_CALL(int, listen, (int fd, int backlog), (fd, backlog))
NIPCTEST_CALL(int, accept4, (int fd, void* address, void* size, int flags), (fd, address, size, flags))
NIPCTEST_CALL(int, socketpair, (int domain, int type, int protocol, int* ends), (domain, type, protocol, ends))
NIPCTEST_CALL(int, setsockopt, (int fd, int level, int name, const void* value, socklen_t size),
              (fd, level, name, value, size))
NIPCTEST_CALL(int, getsockopt, (int fd, int level, int name, void* value, void* size), (fd, level, name, value, size))
NIPCTEST_CALL(int, shutdown, (int fd, int how), (fd, how))
NIPCTEST_CALL(ssize_t, read, (int fd, void* data, std::size_t size), (fd, data, size))
NIPCTEST_CALL(ssize_t, write, (int fd, const void* data, std::size_t size), (fd, data, size))
NIPCTEST_CALL(ssize_t, pread, (int fd, void* data, std::size_t size, off_t at), (fd, data, size, at))
NIPCTEST_CALL(ssize_t, pwrite, (int fd, const void* data, std::size_t size, off_t at), (fd, data, size, at))
NIPCTEST_CALL(int, memfd_create, (const char* name, unsigned flags), (name, flags))
NIPCTEST_CALL(int, fallocate, (int fd, int mode, off_t from, off_t size), (fd, mode, from, size))
NIPCTEST_CALL(int, ftruncate, (int fd, off_t size), (fd, size))
NIPCTEST_CALL(void*, mmap, (void* at, std::size_t size, int protection, int flags, int fd, off_t offset),
              (at, size, protection, flags, fd, offset))
NIPCTEST_CALL(int, epoll_create1, (int flags), (flags))
NIPCTEST_CALL(int, epoll_wait, (int fd, void* events, int count, int timeout), (fd, events, count, timeout))
NIPCTEST_CALL(int, eventfd, (unsigned value, int flags), (value, flags))
NIPCTEST_CALL(int, timerfd_create, (int clock, int flags), (clock, flags))
NIPCTEST_CALL(int, inotify_init1, (int flags), (flags))
NIPCTEST_CALL(int, inotify_add_watch, (int fd, const char* path, unsigned mask), (fd, path, mask))
NIPCTEST_CALL(int, inotify_rm_watch, (int fd, int watch), (fd, watch))
NIPCTEST_CALL(int, fstat, (int fd, void* status), (fd, status))
NIPCTEST_CALL(int, stat, (const char* path, void* status), (path, status))
NIPCTEST_CALL(int, fstatfs, (int fd, void* status), (fd, status))
NIPCTEST_CALL(int, mkdir, (const char* path, mode_t mode), (path, mode))
NIPCTEST_CALL(int, fchown, (int fd, uid_t user, gid_t group), (fd, user, group))
NIPCTEST_CALL(int, fchmod, (int fd, mode_t mode), (fd, mode))
NIPCTEST_CALL(int, chown, (const char* path, uid_t user, gid_t group), (path, user, group))
NIPCTEST_CALL(int, chmod, (const char* path, mode_t mode), (path, mode))
NIPCTEST_CALL(int, renameat, (int from, const char* name, int to, const char* newName), (from, name, to, newName))
NIPCTEST_CALL(int, unlinkat, (int directory, const char* name, int flags), (directory, name, flags))
NIPCTEST_CALL(int, flock, (int fd, int operation), (fd, operation))
NIPCTEST_CALL(int, poll, (void* polled, unsigned long count, int timeout), (polled, count, timeout))
NIPCTEST_CALL(int, ppoll, (void* polled, unsigned long count, const timespec* limit, const void* mask),
              (polled, count, limit, mask))
NIPCTEST_OPTIONAL(int, open, (const char* path, int flags, ...), flags, (path, flags, argument))
NIPCTEST_OPTIONAL(int, openat, (int directory, const char* path, int flags, ...), flags,
                  (directory, path, flags, argument))
NIPCTEST_OPTIONAL(int, fcntl, (int fd, int command, ...), command, (fd, command, argument))

// Only adding can fail of what is valid.
NIPCTEST_STAND_IN(int, epoll_ctl, (int fd, int operation, int watched, epoll_event* event)) {
    static const auto real = original<int (*)(int, int, int, epoll_event*)>("epoll_ctl");
    const int error = operation == EPOLL_CTL_ADD ? errorOf("epoll_ctl", __builtin_return_address(0)) : 0;
    return error != 0 ? failed<int>(error) : real(fd, operation, watched, event);
}

// These tell the error in their result.
NIPCTEST_STAND_IN(int, pthread_create,
                  (pthread_t * thread, const void* options, void* (*body)(void*), void* argument)) {
    static const auto real = original<int (*)(pthread_t*, const void*, void* (*)(void*), void*)>("pthread_create");
    const int error = errorOf("pthread_create", __builtin_return_address(0));
    return error != 0 ? error : real(thread, options, body, argument);
}

#define NIPCTEST_SEND(result, name, parameters, arguments)                             \
    NIPCTEST_STAND_IN(result, name, parameters) {                                      \
        static const auto real = original<result(*) parameters>(#name);                \
        const int error = endIfReset(fd, errorOf(#name, __builtin_return_address(0))); \
        return error != 0 ? failed<result>(error) : real arguments;                    \
    }
NIPCTEST_SEND(ssize_t, sendmsg, (int fd, const void* message, int flags), (fd, message, flags))
NIPCTEST_SEND(int, sendmmsg, (int fd, void* messages, unsigned count, int flags), (fd, messages, count, flags))
NIPCTEST_SEND(ssize_t, send, (int fd, const void* data, std::size_t size, int flags), (fd, data, size, flags))
NIPCTEST_SEND(ssize_t, recv, (int fd, void* data, std::size_t size, int flags), (fd, data, size, flags))

// A fault of the second kind, of those calls that bring a descriptor: it is lost on the way.
NIPCTEST_STAND_IN(ssize_t, recvmsg, (int fd, msghdr* message, int flags)) {
    static const auto real = original<ssize_t (*)(int, msghdr*, int)>("recvmsg");
    const void* const site = __builtin_return_address(0);
    if (const int error = endIfReset(fd, errorOf("recvmsg", site))) return failed<ssize_t>(error);
    const ssize_t length = real(fd, message, flags);
    if (length >= 0) nipctest::passDescriptors(*message, "recvmsg+descriptor", site);
    return length;
}

NIPCTEST_STAND_IN(int, recvmmsg, (int fd, mmsghdr* messages, unsigned count, int flags, timespec* limit)) {
    static const auto real = original<int (*)(int, mmsghdr*, unsigned, int, timespec*)>("recvmmsg");
    const void* const site = __builtin_return_address(0);
    if (const int error = endIfReset(fd, errorOf("recvmmsg", site))) return failed<int>(error);
    const int received = real(fd, messages, count, flags, limit);
    for (int i = 0; i < received; ++i) nipctest::passDescriptors(messages[i].msg_hdr, "recvmmsg+descriptor", site);
    return received;
}
