#include "ProcessState.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string>

namespace nipcctl {
namespace {

std::string directoryOf(pid_t pid) { return "/proc/" + std::to_string(pid) + "/"; }

/// The rest of the line that begins so; empty when there is none.
std::string lineOf(pid_t pid, const char* file, const std::string& beginning) {
    std::ifstream stream(directoryOf(pid) + file);
    for (std::string line; std::getline(stream, line);)
        if (line.compare(0, beginning.size(), beginning) == 0) return line.substr(beginning.size());
    return {};
}

}  // namespace

std::optional<DescriptorUse> descriptorUse(pid_t pid) {
    const std::string limit = lineOf(pid, "limits", "Max open files");
    std::error_code error;
    std::filesystem::directory_iterator entry(directoryOf(pid) + "fd", error);
    if (limit.empty() || error) return std::nullopt;
    DescriptorUse use;
    for (; entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        ++use.used;
        if (error) return std::nullopt;
    }
    const std::size_t number = limit.find_first_not_of(' ');
    const bool unlimited = limit.compare(number, 9, "unlimited") == 0;
    use.limit = unlimited ? std::numeric_limits<std::size_t>::max()
                          : static_cast<std::size_t>(std::strtoull(limit.c_str() + number, nullptr, 10));
    return use;
}

bool isStopped(pid_t pid) {
    const std::string state = lineOf(pid, "status", "State:");
    return state.find_first_of("Tt") == state.find_first_not_of(" \t") &&
           state.find_first_of("Tt") != std::string::npos;
}

}  // namespace nipcctl
