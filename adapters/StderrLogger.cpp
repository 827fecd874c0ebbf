#include "nipcconnector/adapters/StderrLogger.h"

#include <unistd.h>

#include <algorithm>
#include <ctime>

#include "LogText.h"

namespace nipcconnector {

StderrLogger::StderrLogger(const std::string& name, Level leastLevel) : connectorName(name), least(leastLevel) {}

void StderrLogger::debug(const char* format, ...) {
    if (least > Level::Debug) return;
    NIPC_WRITE_LOG_TEXT('D');
}

void StderrLogger::info(const char* format, ...) {
    if (least > Level::Info) return;
    NIPC_WRITE_LOG_TEXT('I');
}

void StderrLogger::warn(const char* format, ...) {
    if (least > Level::Warn) return;
    NIPC_WRITE_LOG_TEXT('W');
}

void StderrLogger::error(const char* format, ...) {
    if (least > Level::Error) return;
    NIPC_WRITE_LOG_TEXT('E');
}

// One system call for the whole line, so that the lines of several threads and processes do not mix.
void StderrLogger::write(char letter, const char* text) const {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    std::tm utc{};
    gmtime_r(&now.tv_sec, &utc);
    char time[32];
    std::strftime(time, sizeof time, "%Y-%m-%dT%H:%M:%S", &utc);

    char line[2304];
    const int length = std::snprintf(line, sizeof line, "%s.%03ldZ %c %.200s: %s\n", time, now.tv_nsec / 1'000'000,
                                     letter, connectorName.c_str(), text);
    if (length <= 0) return;
    const auto size = std::min(static_cast<std::size_t>(length), sizeof line - 1);
    // Nobody to tell when this fails.
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, line, size);
}

}  // namespace nipcconnector
