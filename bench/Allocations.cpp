// Counts what small messages allocate in steady state, in the connector, the platform and the program apart, and fails
// when it has become more. The counting allocator would slow the benchmark down, so this is a program of its own.
#include <dlfcn.h>
#include <execinfo.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "Process.h"
#include "Report.h"
#include "Subject.h"
#include "Supervisor.h"

namespace {

enum Owner { Connector, Platform, Program, owners };

struct Tally {
    std::atomic<bool> counting{false};
    std::atomic<bool> exceeded{false};
    std::atomic<long> allocations[owners] = {};
};
Tally* tally = nullptr;  // In memory that client and service share.

// The innermost of our libraries on the stack made the allocation, whatever of libstdc++ lies between.
Owner ownerOf(const void* caller) {
    void* frames[24];
    const int count = backtrace(frames, 24);
    int i = 0;
    while (i < count && frames[i] != caller) ++i;
    for (; i < count; ++i) {
        Dl_info info{};
        if (dladdr(frames[i], &info) == 0 || info.dli_fname == nullptr) continue;
        if (std::strstr(info.dli_fname, "libnipcconnector") != nullptr) return Connector;
        if (std::strstr(info.dli_fname, "libnex_nipc") != nullptr) return Platform;
        if (std::strstr(info.dli_fname, "nipc_allocations") != nullptr) return Program;
    }
    return Program;
}

void note(const void* caller) {
    static thread_local bool inside = false;
    if (inside || tally == nullptr || !tally->counting) return;
    inside = true;
    ++tally->allocations[ownerOf(caller)];
    inside = false;
}

}  // namespace

// operator new ends here as well.
#define NIPC_COUNTED extern "C" __attribute__((visibility("default"), noinline))
// NOLINTBEGIN(bugprone-reserved-identifier): the C library's own names for what is counted here.
extern "C" {
void* __libc_malloc(std::size_t size) noexcept;
void* __libc_calloc(std::size_t count, std::size_t size) noexcept;
void* __libc_realloc(void* old, std::size_t size) noexcept;
void* __libc_memalign(std::size_t alignment, std::size_t size) noexcept;
}
// NOLINTEND(bugprone-reserved-identifier)
NIPC_COUNTED void* malloc(std::size_t size) noexcept {
    note(__builtin_return_address(0));
    return __libc_malloc(size);
}
NIPC_COUNTED void* calloc(std::size_t count, std::size_t size) noexcept {
    note(__builtin_return_address(0));
    return __libc_calloc(count, size);
}
NIPC_COUNTED void* realloc(void* old, std::size_t size) noexcept {
    note(__builtin_return_address(0));
    return __libc_realloc(old, size);
}
NIPC_COUNTED void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
    note(__builtin_return_address(0));
    return __libc_memalign(alignment, size);
}

namespace bench {

std::unique_ptr<Subject> makeSubject(const Options& options) { return makeConnectorSubject(options); }

namespace {

struct Kind {
    const char* name;
    const char* workload;
    double connectorLimit;  ///< Per message, client and service together.
};
constexpr Kind kinds[] = {{"synchronous request", "W1", 1}, {"asynchronous request", "W2", 2}, {"event", "W3", 1}};
constexpr long messages = 2000;

template <typename Work>
double counted(long (&counts)[owners], const Work& work) {
    const auto take = [&](long sign) {
        for (int i = 0; i < owners; ++i) counts[i] += sign * tally->allocations[i];
    };
    take(-1);
    const long done = work();
    take(1);
    return static_cast<double>(done);
}

long awaitEvents(const SharedPage& page, long count) {
    while (page.arrivals[0].count < count) nap(200);
    return page.arrivals[0].count;
}

double runKind(const Options& options, Subject& subject, SharedPage& page, long (&counts)[owners]) {
    if (options.is("W3")) {
        subject.subscribe([&page](int, const char*, std::size_t) { ++page.arrivals[0].count; });
        page.subscribed = 1;
        const long first = awaitEvents(page, messages);
        // To the last one, so that the service is not ahead when we read its count.
        return counted(counts, [&] { return awaitEvents(page, options.count) - first; });
    }
    subject.connect();
    const std::vector<char> data(options.size, 'q');
    const auto work = [&] {
        if (options.is("W2")) return subject.pipeline(messages), messages;
        for (long i = 0; i < messages; ++i) subject.call(0, i, data.data(), data.size());
        return messages;
    };
    work();
    return counted(counts, work);
}

void measureKind(const Kind& kind, const Options& options, Subject& subject, SharedPage& page) {
    tally->counting = true;
    long counts[owners] = {};
    const double done = runKind(options, subject, page, counts);
    tally->counting = false;
    const double connector = static_cast<double>(counts[Connector]) / done;
    const double platform = static_cast<double>(counts[Platform]) / done;
    std::printf("{\"kind\":\"%s\",%s,%s,%s}\n", kind.name, field("connector", connector, 2).c_str(),
                field("platform", platform, 2).c_str(),
                field("program", static_cast<double>(counts[Program]) / done, 2).c_str());
    constexpr double tolerance = 0.05;  // What comes once, however many messages.
    if (connector <= kind.connectorLimit + tolerance && platform <= tolerance) return;
    std::printf("%s: more than %.0f in the connector or any in the platform\n", kind.name, kind.connectorLimit);
    tally->exceeded = true;
}

}  // namespace
}  // namespace bench

int main() {
    void* memory = mmap(nullptr, sizeof(Tally), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    bench::require(memory != MAP_FAILED, "mmap");
    void* frame = nullptr;
    backtrace(&frame, 1);  // The first call loads the unwinder, which allocates.
    tally = new (memory) Tally();
    for (const bench::Kind& kind : bench::kinds) {
        bench::Options options;
        options.workload = kind.workload;
        options.rate = 2000;
        options.count = 3 * bench::messages;
        options.seconds = 30;
        const int status = bench::supervise(options, [&](const auto& o, auto& subject, auto& page, pid_t) {
            bench::measureKind(kind, o, subject, page);
        });
        if (status != 0) return status;
    }
    return tally->exceeded ? 1 : 0;
}
