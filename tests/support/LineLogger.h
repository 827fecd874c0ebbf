#pragma once

#include <cstdarg>

#include "nipcconnector/ILogger.h"

/// A logger of which only is left to say what becomes of a line.
class LineLogger : public nipcconnector::ILogger {
public:
#define NIPCTEST_LEVEL(level)                      \
    void level(const char* format, ...) override { \
        std::va_list arguments;                    \
        va_start(arguments, format);               \
        log(format, arguments);                    \
        va_end(arguments);                         \
    }
    NIPCTEST_LEVEL(info)
    NIPCTEST_LEVEL(debug)
    NIPCTEST_LEVEL(error)
    NIPCTEST_LEVEL(warn)
#undef NIPCTEST_LEVEL

private:
    virtual void log(const char* format, std::va_list arguments) = 0;
};
