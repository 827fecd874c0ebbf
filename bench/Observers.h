#pragma once

#include <memory>

#include "nipcconnector/ILogger.h"
#include "nipcconnector/IMetricsRecorder.h"

namespace bench {

/// A logger that formats every line, as a real one does, and keeps none.
std::unique_ptr<nipcconnector::ILogger> makeCountingLogger();

/// A recorder that looks at every dimension and keeps none.
std::unique_ptr<nipcconnector::IMetricsRecorder> makeCountingRecorder();

}  // namespace bench
