#pragma once

#include <memory>

#include "nipcconnector/ILogger.h"

namespace spdlog {
class logger;
}

namespace nipcconnector {

/// Hands log lines to a logger of spdlog, levels alike. Lines below that logger's level cost next to nothing;
/// others are cut after 2 KiB. The logger has to be one of those that are thread-safe ("_mt").
class SpdlogLogger : public ILogger {
public:
    /// Null is a logger that takes nothing.
    explicit SpdlogLogger(std::shared_ptr<spdlog::logger> logger);
    ~SpdlogLogger() override;

    void info(const char* format, ...) override NIPC_PRINTF_FORMAT;
    void debug(const char* format, ...) override NIPC_PRINTF_FORMAT;
    void error(const char* format, ...) override NIPC_PRINTF_FORMAT;
    void verbose(const char* format, ...) override NIPC_PRINTF_FORMAT;
    void warn(const char* format, ...) override NIPC_PRINTF_FORMAT;

private:
    bool takes(int level) const;
    void write(int level, const char* text) const;

    const std::shared_ptr<spdlog::logger> target;
};

}  // namespace nipcconnector
