#pragma once

#include <cstddef>
#include <functional>

#include "Options.h"
#include "SharedPage.h"

namespace bench {

/// W3 in the service's process: publishes, as fast as it goes or at Options::rate, until count or time is reached.
/// Stays at most 1024 events ahead of the slowest subscriber, so that nothing has to be dropped.
using Publish = std::function<void(const char* data, std::size_t size)>;
void publishEvents(const Options& options, SharedPage& page, const Publish& publish);

}  // namespace bench
