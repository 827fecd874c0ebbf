#pragma once

#include <sys/types.h>

#include <functional>

#include "Options.h"
#include "SharedPage.h"
#include "Subject.h"

namespace bench {

/// Runs the processes of one measurement (service, the clients besides the measured one, the measured client), each
/// with a subject of its own, and ends them all when the measured client is through, when one of them fails, or when
/// it takes too long. Returns the exit status of the program. Call it before there is any other thread.
using Measure = std::function<void(const Options& options, Subject& subject, SharedPage& page, pid_t service)>;
int supervise(Options options, const Measure& measure);

}  // namespace bench
