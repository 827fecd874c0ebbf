// A logger of one's own, on syslog, behind a limit for lines that repeat.
#include <syslog.h>

#include <cstdarg>

#include "nipcconnector/NIPCConnector.h"
#include "nipcconnector/adapters/RateLimitedLogger.h"

namespace {

// [logger]
/// The library's lines in the system's log. vsyslog() is thread-safe, which is all that a logger has to be.
class SyslogLogger : public nipcconnector::ILogger {
public:
    void error(const char* format, ...) override {
        std::va_list arguments;
        va_start(arguments, format);
        vsyslog(LOG_ERR, format, arguments);
        va_end(arguments);
    }

    void warn(const char* format, ...) override {
        std::va_list arguments;
        va_start(arguments, format);
        vsyslog(LOG_WARNING, format, arguments);
        va_end(arguments);
    }

    void info(const char* format, ...) override {
        std::va_list arguments;
        va_start(arguments, format);
        vsyslog(LOG_INFO, format, arguments);
        va_end(arguments);
    }

    void debug(const char*, ...) override {}  // Payloads do not belong into the system's log.
};
// [logger]

std::shared_ptr<nipcconnector::NIPCConnector> makeClient() {
    // [limit]
    auto logger = std::make_unique<nipcconnector::RateLimitedLogger>(std::make_unique<SyslogLogger>());
    return nipcconnector::NIPCConnector::getInstance(true, "lamp", {"lamp", 4306}, std::move(logger), nullptr);
    // [limit]
}

}  // namespace

int main() { return makeClient() ? 0 : 1; }
