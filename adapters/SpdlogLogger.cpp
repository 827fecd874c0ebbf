#include "nipcconnector/adapters/SpdlogLogger.h"

#include <spdlog/logger.h>

#include "LogText.h"

namespace nipcconnector {

SpdlogLogger::SpdlogLogger(std::shared_ptr<spdlog::logger> logger) : target(std::move(logger)) {}

SpdlogLogger::~SpdlogLogger() = default;

void SpdlogLogger::verbose(const char* format, ...) {
    if (!takes(spdlog::level::trace)) return;
    NIPC_WRITE_LOG_TEXT(spdlog::level::trace);
}

void SpdlogLogger::debug(const char* format, ...) {
    if (!takes(spdlog::level::debug)) return;
    NIPC_WRITE_LOG_TEXT(spdlog::level::debug);
}

void SpdlogLogger::info(const char* format, ...) {
    if (!takes(spdlog::level::info)) return;
    NIPC_WRITE_LOG_TEXT(spdlog::level::info);
}

void SpdlogLogger::warn(const char* format, ...) {
    if (!takes(spdlog::level::warn)) return;
    NIPC_WRITE_LOG_TEXT(spdlog::level::warn);
}

void SpdlogLogger::error(const char* format, ...) {
    if (!takes(spdlog::level::err)) return;
    NIPC_WRITE_LOG_TEXT(spdlog::level::err);
}

bool SpdlogLogger::takes(int level) const {
    return target && target->should_log(static_cast<spdlog::level::level_enum>(level));
}

void SpdlogLogger::write(int level, const char* text) const {
    target->log(static_cast<spdlog::level::level_enum>(level), spdlog::string_view_t(text));
}

}  // namespace nipcconnector
