#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>

namespace nipcctl {

struct DescriptorUse {
    std::size_t used = 0;
    std::size_t limit = 0;
};

/// What /proc tells of a process; nothing where it does not let us look.
std::optional<DescriptorUse> descriptorUse(pid_t pid);

/// Whether a signal or a debugger keeps it from running.
bool isStopped(pid_t pid);

}  // namespace nipcctl
