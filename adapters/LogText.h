#pragma once

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace nipcconnector {

/// The text of a log line. Lines that carry a payload may be megabytes long: what is over 2 KiB is left out, and
/// "..." says so. Allocates nothing.
class LogText {
public:
    LogText(const char* format, std::va_list arguments) {
        const int length = std::vsnprintf(text, sizeof text, format, arguments);
        if (length < 0) std::snprintf(text, sizeof text, "%s", format);
        if (length >= static_cast<int>(sizeof text)) std::memcpy(text + sizeof text - 4, "...", 4);
    }
    const char* c_str() const { return text; }

private:
    char text[2048];
};

}  // namespace nipcconnector

/// The body of a logging operation: calls write(argument, LogText).
#define NIPC_WRITE_LOG_TEXT(argument)                     \
    std::va_list arguments;                               \
    va_start(arguments, format);                          \
    const nipcconnector::LogText text(format, arguments); \
    va_end(arguments);                                    \
    write(argument, text.c_str())
