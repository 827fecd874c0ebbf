#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

/// What the benchmark asks of the operating system: time, waiting, affinity, and what a process has used.
namespace bench {

/// Nanoseconds of the monotonic clock.
std::uint64_t now();

void nap(std::uint64_t microseconds);
void napUntil(std::uint64_t monotonicNanoseconds);

/// Ends the process with a line on stderr unless `ok`: a benchmark that goes on after a failure measures nothing.
void require(bool ok, const char* what);

enum class Role { Client, Service };

/// Binds the process: "split" has client and service on different processors, "same" on one, "none" does nothing.
void pinTo(const std::string& pin, Role role);

/// CPU time of all threads of a process, in nanoseconds.
double cpuTime(pid_t pid);

/// Context switches, voluntary or not, of all threads of a process.
long contextSwitches(pid_t pid);

/// A number of /proc/PID/status, for instance of "VmRSS:".
long statusField(pid_t pid, const char* key);

}  // namespace bench
