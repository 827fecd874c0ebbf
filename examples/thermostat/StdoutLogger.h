#pragma once

#include <array>
#include <cstdarg>
#include <cstdio>

#include "nipcconnector/ILogger.h"

namespace thermostat {

/// Prints the library's warnings and errors. Each line is one call of printf, which is all that thread
/// safety takes here.
class StdoutLogger : public nipcconnector::ILogger {
public:
    void info(const char*, ...) override {}
    void debug(const char*, ...) override {}  // These carry whole payloads.

    void error(const char* format, ...) override {
        std::va_list arguments;
        va_start(arguments, format);
        print("error", format, arguments);
        va_end(arguments);
    }

    void warn(const char* format, ...) override {
        std::va_list arguments;
        va_start(arguments, format);
        print("warn", format, arguments);
        va_end(arguments);
    }

private:
    static void print(const char* level, const char* format, std::va_list arguments) {
        std::array<char, 200> line{};
        std::vsnprintf(line.data(), line.size(), format, arguments);
        std::printf("  log %-5s %s\n", level, line.data());
    }
};

}  // namespace thermostat
