#pragma once

#include <cstddef>
#include <string>

namespace bench {

/// One run: what is measured and under which conditions. docs/performance.md explains the options.
struct Options {
    std::string workload = "W1";
    std::string variant;
    std::string pin = "none";
    std::size_t size = 64;
    double seconds = 0.5;
    long count = 1000000;
    long rate = 0;
    int window = 64;
    int subscribers = 1;
    int clients = 1;
    int idle = 0;
    int names = 0;
    int callers = 1;
    int services = 1;
    std::string directory;  ///< Where the run keeps its sockets; not an option.

    bool is(const char* name) const { return workload == name; }
};

constexpr int maxSubscribers = 16;

/// Reads the command line. Prints the usage and ends the program when it is wrong.
Options parseOptions(int argc, char** argv);

}  // namespace bench
