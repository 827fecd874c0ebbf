#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

/// Stands between a program and the system: counts the passes of every place that calls it, and makes chosen ones fail.
/// A place is known by the address its call returns to, which does not move in a program linked at a fixed address.
namespace nipctest {

/// The `pass`-th call of the function that returns to `site` fails with `error`. Several may be planned. Of
/// "recvmsg+descriptor" and "recvmmsg+descriptor" those calls fail that bring a descriptor: they bring none.
void planFault(std::uintptr_t site, const std::string& function, unsigned pass, int error);
/// The n-th allocation fails, of those that throw or of those that return null.
void planShortage(bool throwing, unsigned n);

/// Only between these two is anything counted or made to fail.
void armFaults();
void disarmFaults();

/// How many of the planned faults have happened.
unsigned faultsCaused();
/// Says a line for each place: "site ADDRESS FUNCTION PASSES", and "allocations THROWING OTHER".
void sayPasses();
/// How often the function was called from anywhere since faults were armed.
unsigned passesOf(const char* function);
/// Allocations that were not given back.
std::ptrdiff_t liveAllocations();

/// The allocations of this thread do not count: those of the test itself.
class OwnAllocations {
public:
    explicit OwnAllocations(bool own = true);
    ~OwnAllocations();
    OwnAllocations(const OwnAllocations&) = delete;
    OwnAllocations& operator=(const OwnAllocations&) = delete;

private:
    const bool before_;
};

}  // namespace nipctest
