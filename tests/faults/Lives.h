#pragma once

#include <chrono>
#include <string>
#include <thread>

/// What the program with the faults does: lives of a service and its clients, all in this process. Each tells the first
/// step that did not go well and how, or nothing.
std::string platformLife(const std::string& directory);
std::string connectorLife(const std::string& directory);

template <typename Condition>
bool soon(Condition condition, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

class Steps {
public:
    /// False from the first step on that did not go well.
    bool good(const char* name, int status) {
        if (failed.empty() && status != 0) failed = std::string(name) + " " + std::to_string(status);
        return failed.empty();
    }
    std::string failed;
};
