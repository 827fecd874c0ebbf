#pragma once

#include <string>

namespace nipcctl {

/// All bytes of a file, or of standard input for "-". Fails with Exit::InputOutput.
std::string readAll(const std::string& path);

}  // namespace nipcctl
