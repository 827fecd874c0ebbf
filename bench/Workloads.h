#pragma once

#include <sys/types.h>

#include "Options.h"
#include "SharedPage.h"
#include "Subject.h"

namespace bench {

/// Runs the workload of `options` in the client's process and prints its line.
void measure(const Options& options, Subject& subject, SharedPage& page, pid_t service);

}  // namespace bench
