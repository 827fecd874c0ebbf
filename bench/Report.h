#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "Options.h"

namespace bench {

/// What both processes have used up to a moment.
struct Usage {
    std::uint64_t at = 0;
    double clientCpu = 0;
    double serviceCpu = 0;
    long switches = 0;

    static Usage take(pid_t service);
};

/// Prints one JSON object, on one line: the run's conditions, then `fields`.
void printLine(const Options& options, const std::string& fields);

/// The line of a run of `count` messages that took `elapsed` nanoseconds. `latencies` (nanoseconds) may be empty.
void printRun(const Options& options, const Usage& before, const Usage& after, double count, std::uint64_t elapsed,
              std::vector<double> latencies, const std::string& more = "");

/// "name":value, with the given digits after the point.
std::string field(const char* name, double value, int digits = 3);

}  // namespace bench
