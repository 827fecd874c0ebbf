#pragma once

#include <string>

#include "nipcconnector/ILogger.h"

namespace nipcconnector {

/// Writes log lines to standard error, each in one piece: "2026-01-31T12:00:00.000Z W name: text". Depends on
/// nothing. Lines are cut after 2 KiB.
class StderrLogger : public ILogger {
public:
    /// The lowest first; with Nothing there are no lines at all.
    enum class Level { Debug, Info, Warn, Error, Nothing };

    /// Lines below `leastLevel` cost next to nothing. Debug lines carry payloads. `name` tells the connectors of
    /// a process apart.
    explicit StderrLogger(const std::string& name, Level leastLevel = Level::Warn);

    void info(const char* format, ...) override NIPC_PRINTF_FORMAT;
    void debug(const char* format, ...) override NIPC_PRINTF_FORMAT;
    void error(const char* format, ...) override NIPC_PRINTF_FORMAT;
    void warn(const char* format, ...) override NIPC_PRINTF_FORMAT;

private:
    void write(char letter, const char* text) const;

    const std::string connectorName;
    const Level least;
};

}  // namespace nipcconnector
