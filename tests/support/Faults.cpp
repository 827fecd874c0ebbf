#include "Faults.h"

#include <pthread.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <new>
#include <system_error>

namespace nipctest {
namespace {

thread_local int newsToCome = 0;
thread_local int nothrowNewsToCome = 0;

void* allocate(std::size_t size, int& untilFailure) {
    return untilFailure > 0 && --untilFailure == 0 ? nullptr : std::malloc(size > 0 ? size : 1);
}

/// More than any address space has: creating a thread then fails as it does when memory is short.
constexpr std::size_t impossibleStackSize = std::size_t{3} << (sizeof(void*) * 8 - 2);

std::size_t exchangeDefaultStackSize(std::size_t size) {
    pthread_attr_t attributes;
    std::size_t previous = 0;
    pthread_getattr_default_np(&attributes);
    pthread_attr_getstacksize(&attributes, &previous);
    pthread_attr_setstacksize(&attributes, size);
    pthread_setattr_default_np(&attributes);
    pthread_attr_destroy(&attributes);
    return previous;
}

}  // namespace

bool failNew(int n) {
    const bool pending = newsToCome > 0;
    newsToCome = n;
    return pending;
}

void failNothrowNew(int n) { nothrowNewsToCome = n; }

ThreadShortage::ThreadShortage() : usualStackSize(exchangeDefaultStackSize(impossibleStackSize)) {}

ThreadShortage::~ThreadShortage() { exchangeDefaultStackSize(usualStackSize); }

std::size_t sharedMemoryInUse() {
    const std::string mark = "memfd:nipc_connector_payload";
    std::size_t found = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (std::filesystem::read_symlink(entry.path(), gone).string().find(mark) != std::string::npos) ++found;
    }
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        if (line.find(mark) != std::string::npos) ++found;
    }
    return found;
}

}  // namespace nipctest

void* operator new(std::size_t size) {
    void* const block = nipctest::allocate(size, nipctest::newsToCome);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return nipctest::allocate(size, nipctest::nothrowNewsToCome);
}

void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { std::free(block); }
