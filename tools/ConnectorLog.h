#pragma once

#include <memory>

#include "Link.h"
#include "nipcconnector/ILogger.h"

namespace nipcctl {

/// A logger that tells the monitor what the connector's lines mean and, when `verbose`, writes them to standard
/// error.
std::unique_ptr<nipcconnector::ILogger> connectorLog(std::shared_ptr<Monitor> monitor, bool verbose);

}  // namespace nipcctl
