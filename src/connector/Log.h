#pragma once

#include <cstring>
#include <exception>
#include <string>
#include <utility>

#include "nipcconnector/ILogger.h"

/// Logs one line, or does nothing, not even evaluating the arguments, without a logger. A macro, so that
/// the compiler checks each format against its arguments. A logger that throws has nowhere to complain.
#define NIPC_LOG(logger, level, ...)          \
    do {                                      \
        if (logger) {                         \
            try {                             \
                (logger)->level(__VA_ARGS__); \
            } catch (...) { /* see above */   \
            }                                 \
        }                                     \
    } while (false)

namespace nipcconnector {

/// A payload as a zero-terminated string for a log line. Copies only what holds no zero byte of its own; a
/// null payload is empty, whatever length it claims.
class PayloadText {
public:
    PayloadText(const char* data, std::size_t length) {
        if (data == nullptr || length == 0) return;
        if (std::memchr(data, 0, length) != nullptr) {
            text = data;
        } else {
            copy.assign(data, length);
            text = copy.c_str();
        }
    }
    PayloadText(const PayloadText&) = delete;
    PayloadText& operator=(const PayloadText&) = delete;

    const char* c_str() const { return text; }

private:
    std::string copy;
    const char* text = "";
};

/// Calls the application, or what runs where nobody could catch: exceptions end here, with one error line.
/// False when it threw.
template <typename Function>
bool callGuarded(ILogger* logger, const char* what, Function&& function) noexcept {
    try {
        std::forward<Function>(function)();
        return true;
    } catch (const std::exception& exception) {
        NIPC_LOG(logger, error, "%s threw an exception: %s", what, exception.what());
    } catch (...) {
        NIPC_LOG(logger, error, "%s threw an exception", what);
    }
    return false;
}

}  // namespace nipcconnector
