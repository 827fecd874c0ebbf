#pragma once

#include <cstddef>
#include <string>

namespace nipctest {

/// The n-th allocation of this thread from now on throws; 0 takes that back. Tells whether an earlier one was
/// still to come.
bool failNew(int n);
/// The same for the allocations that return null instead.
void failNothrowNew(int n);

/// While one lives, no thread can be created in this process.
class ThreadShortage {
public:
    ThreadShortage();
    ~ThreadShortage();
    ThreadShortage(const ThreadShortage&) = delete;
    ThreadShortage& operator=(const ThreadShortage&) = delete;

private:
    std::size_t usualStackSize = 0;
};

/// Descriptors and mappings of shared payloads that this process holds.
std::size_t sharedMemoryInUse();

}  // namespace nipctest
