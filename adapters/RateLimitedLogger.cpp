#include "nipcconnector/adapters/RateLimitedLogger.h"

#include <algorithm>

#include "LogText.h"

namespace nipcconnector {

RateLimitedLogger::RateLimitedLogger(std::unique_ptr<ILogger> logger, unsigned int linesPerPeriod,
                                     std::chrono::milliseconds period)
    : inner(std::move(logger)), most(linesPerPeriod), length(period) {}

RateLimitedLogger::~RateLimitedLogger() {
    for (const Kind& kind : kinds) tell(kind);
}

void RateLimitedLogger::debug(const char* format, ...) {
    if (!passes(Level::Debug, format)) return;
    NIPC_WRITE_LOG_TEXT(Level::Debug);
}

void RateLimitedLogger::info(const char* format, ...) {
    if (!passes(Level::Info, format)) return;
    NIPC_WRITE_LOG_TEXT(Level::Info);
}

void RateLimitedLogger::warn(const char* format, ...) {
    if (!passes(Level::Warn, format)) return;
    NIPC_WRITE_LOG_TEXT(Level::Warn);
}

void RateLimitedLogger::error(const char* format, ...) {
    if (!passes(Level::Error, format)) return;
    NIPC_WRITE_LOG_TEXT(Level::Error);
}

bool RateLimitedLogger::passes(Level level, const char* format) {
    if (!inner) return false;
    const auto now = Clock::now();
    Kind expired;
    while (takeExpired(now, expired)) tell(expired);

    const std::lock_guard<std::mutex> lock(mutex);
    Kind& kind = kindOf(format);
    if (kind.lines == 0) {
        kind.begin = now;
        kind.level = level;
        nextLook = std::min(nextLook, now + length);
    }
    kind.level = std::max(kind.level, level);
    return ++kind.lines <= most;
}

// By address: the library's formats are literals.
RateLimitedLogger::Kind& RateLimitedLogger::kindOf(const char* format) {
    for (std::size_t i = 0; i + 1 < kinds.size(); ++i) {
        Kind& kind = kinds[i];
        if (kind.format == format) return kind;
        if (kind.format == nullptr) {
            kind.format = format;
            return kind;
        }
    }
    kinds.back().format = "of rare kinds";
    return kinds.back();
}

// One kind whose period is over; told without the lock, as the inner logger may take its time.
bool RateLimitedLogger::takeExpired(Clock::time_point now, Kind& expired) {
    const std::lock_guard<std::mutex> lock(mutex);
    if (now < nextLook) return false;
    nextLook = Clock::time_point::max();
    for (Kind& kind : kinds) {
        if (kind.lines == 0) continue;
        if (now - kind.begin >= length) {
            expired = kind;
            kind.lines = 0;
            nextLook = now;
            return true;
        }
        nextLook = std::min(nextLook, kind.begin + length);
    }
    return false;
}

// At the level of the lines themselves: of those that the inner logger drops it need not say how many there were.
void RateLimitedLogger::tell(const Kind& kind) {
    if (!inner || kind.lines <= most) return;
    char text[2048];
    std::snprintf(text, sizeof text, "%u more lines like this were left out: %s", kind.lines - most, kind.format);
    write(kind.level, text);
}

void RateLimitedLogger::write(Level level, const char* text) {
    switch (level) {
        case Level::Debug:
            return inner->debug("%s", text);
        case Level::Info:
            return inner->info("%s", text);
        case Level::Warn:
            return inner->warn("%s", text);
        case Level::Error:
            return inner->error("%s", text);
    }
}

}  // namespace nipcconnector
