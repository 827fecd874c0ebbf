#pragma once

#include <stdexcept>
#include <string>

namespace nipcctl {

/// The exit codes, which scripts rely on: they do not change.
enum class Exit : int {
    Ok = 0,
    Negative = 1,     ///< It worked, and the answer is no: the service refused, a list or a check found something.
    Usage = 2,        ///< The command line makes no sense.
    Unreachable = 3,  ///< Nobody offers the service, or it cannot be reached or offered.
    Timeout = 4,      ///< What was waited for did not come in time.
    InputOutput = 5,  ///< A file, standard input or standard output failed.
};

/// Ends the command; `message` is one sentence for standard error, or empty when there is nothing to say.
struct Failure : std::runtime_error {
    Failure(Exit exitCode, const std::string& message) : std::runtime_error(message), code(exitCode) {}
    Exit code;
};

}  // namespace nipcctl
