#pragma once

#include <functional>

namespace nipcctl {

/// Has SIGINT and SIGTERM run `stop`, once and on a thread of its own, instead of ending the process. To be called
/// before anything starts a thread.
void onStopSignal(std::function<void()> stop);

}  // namespace nipcctl
