#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>

#include "nipcconnector/ILogger.h"

namespace nipcconnector {

/// Keeps a storm of like lines from another logger: one line for each event that is lost can be thousands a
/// second. Of the lines with the same format it passes on the first few of each period and counts the others;
/// the next line after the period, whichever it is, is preceded by one of their level that says how many there were.
///
/// Lines that it passes on are cut after 2 KiB.
class RateLimitedLogger : public ILogger {
public:
    /// `logger` gets what is passed on; null is one that takes nothing.
    explicit RateLimitedLogger(std::unique_ptr<ILogger> logger, unsigned int linesPerPeriod = 10,
                               std::chrono::milliseconds period = std::chrono::seconds(10));
    /// Says what was counted and not yet told.
    ~RateLimitedLogger() override;
    RateLimitedLogger(const RateLimitedLogger&) = delete;
    RateLimitedLogger& operator=(const RateLimitedLogger&) = delete;

    void info(const char* format, ...) override NIPC_PRINTF_FORMAT;
    void debug(const char* format, ...) override NIPC_PRINTF_FORMAT;
    void error(const char* format, ...) override NIPC_PRINTF_FORMAT;
    void warn(const char* format, ...) override NIPC_PRINTF_FORMAT;

private:
    using Clock = std::chrono::steady_clock;
    enum class Level { Debug, Info, Warn, Error };
    struct Kind {
        const char* format = nullptr;
        Clock::time_point begin{};
        unsigned int lines = 0;
        Level level = Level::Debug;  ///< The highest of its lines.
    };

    bool passes(Level level, const char* format);
    Kind& kindOf(const char* format);
    bool takeExpired(Clock::time_point now, Kind& expired);
    void tell(const Kind& kind);
    void write(Level level, const char* text);

    const std::unique_ptr<ILogger> inner;
    const unsigned int most;
    const Clock::duration length;
    std::mutex mutex;
    std::array<Kind, 64> kinds;  ///< The last is for all formats that find no place.
    Clock::time_point nextLook = Clock::time_point::max();
};

}  // namespace nipcconnector
