#pragma once

#include <string>
#include <string_view>

namespace nipcctl {

struct CommandResult {
    bool succeeded = false;  ///< it could be started, and exited with 0
    std::string output;
};

/// Runs `/bin/sh -c command` with the bytes on its standard input, and waits for it.
CommandResult runShellCommand(const std::string& command, std::string_view input);

/// Ends those that run, with what they have started, by SIGTERM.
void endShellCommands();

}  // namespace nipcctl
