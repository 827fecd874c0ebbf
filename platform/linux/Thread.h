#pragma once

#include <functional>

namespace nexnipc {

// Starts a detached thread that takes no signals sent to the process; 0 or a negative errno. The name is cut at 15.
int startThread(const char* name, std::function<void()> body);

}  // namespace nexnipc
