#include "ConnectorLog.h"

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <string_view>
#include <utility>

#include "Output.h"

namespace nipcctl {
namespace {

/// The arguments of a line that are of interest stand first.
struct Meaning {
    std::string_view format;
    void (*apply)(Monitor& monitor, std::va_list& arguments);
};

void attemptFailed(Monitor& monitor, std::va_list& arguments) {
    va_arg(arguments, const char*);  // what was attempted
    va_arg(arguments, int);          // how many times
    monitor.startFailure = va_arg(arguments, int);
}

constexpr std::array<Meaning, 10> meanings = {{
    // Not "Successfully connected to server", which may be told before a request can be sent.
    {"%s succeeded after %d retries",
     [](Monitor& monitor, std::va_list&) {
         monitor.connected = true;
         monitor.startFailure.reset();
     }},
    {"NEX_NIPC_EVENT_SERVER_DOWN",
     [](Monitor& monitor, std::va_list&) {
         monitor.connected = false;
         ++monitor.losses;
     }},
    {"%s failed on attempt %d, status: %d, retrying in %dms", attemptFailed},
    {"Initial NIPC server start failed (status: %d), starting async retry with 5-minute timeout",
     [](Monitor& monitor, std::va_list& arguments) { monitor.startFailure = va_arg(arguments, int); }},
    {"reason=RPCSyncFailed, status=%d",
     [](Monitor& monitor, std::va_list& arguments) { monitor.transportFailure = va_arg(arguments, int); }},
    {"Failed to send async request, status: %d",
     [](Monitor& monitor, std::va_list& arguments) { monitor.transportFailure = va_arg(arguments, int); }},
    {"Timed out waiting for FD processing ACK from receiver.",
     [](Monitor& monitor, std::va_list&) { monitor.transportFailure = -ETIMEDOUT; }},
    {"reason=RPCSyncFailed, rpc_params.status=%d", [](Monitor& monitor, std::va_list&) { monitor.refused = true; }},
    {"Not connected to service, attempting to reconnect on request",
     [](Monitor& monitor, std::va_list&) { monitor.notSent = true; }},
    {"Connection in progress, request cannot be sent now",
     [](Monitor& monitor, std::va_list&) { monitor.notSent = true; }},
}};

std::string textOf(const char* format, std::va_list arguments) {
    std::va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    std::string text(static_cast<std::size_t>(length > 0 ? length : 0) + 1, '\0');
    std::vsnprintf(text.data(), text.size(), format, arguments);
    text.pop_back();
    return text;
}

class ConnectorLog : public nipcconnector::ILogger {
public:
    ConnectorLog(std::shared_ptr<Monitor> monitor, bool verbose) : monitor_(std::move(monitor)), verbose_(verbose) {}

#define NIPCCTL_LEVEL(level)                       \
    void level(const char* format, ...) override { \
        std::va_list arguments;                    \
        va_start(arguments, format);               \
        line(#level, format, arguments);           \
        va_end(arguments);                         \
    }
    NIPCCTL_LEVEL(info)
    NIPCCTL_LEVEL(debug)
    NIPCCTL_LEVEL(error)
    NIPCCTL_LEVEL(warn)
#undef NIPCCTL_LEVEL

private:
    void line(std::string_view level, const char* format, std::va_list arguments) {
        const bool isError = level == "error";
        if (verbose_ || isError) {
            std::va_list copy;
            va_copy(copy, arguments);
            const std::string text = textOf(format, copy);
            va_end(copy);
            if (verbose_) complain(std::string(level) + ": " + escaped(text));
            if (isError)
                monitor_->change([&] {
                    if (monitor_->firstError.empty()) monitor_->firstError = text;
                });
        }
        for (const Meaning& meaning : meanings) {
            if (meaning.format != format) continue;
            std::va_list copy;
            va_copy(copy, arguments);
            monitor_->change([&] { meaning.apply(*monitor_, copy); });
            va_end(copy);
        }
    }

    const std::shared_ptr<Monitor> monitor_;
    const bool verbose_;
};

}  // namespace

std::unique_ptr<nipcconnector::ILogger> connectorLog(std::shared_ptr<Monitor> monitor, bool verbose) {
    return std::make_unique<ConnectorLog>(std::move(monitor), verbose);
}

}  // namespace nipcctl
