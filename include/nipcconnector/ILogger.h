#pragma once

#include "smarthome/Export.h"

namespace nipcconnector {

#if defined(__GNUC__)
/// The compiler checks the arguments against the format (argument 1 is `this`).
#define NIPC_PRINTF_FORMAT __attribute__((format(printf, 2, 3)))
#else
#define NIPC_PRINTF_FORMAT
#endif

/// Takes the library's log lines; supplied by the application and owned by the connector.
///
/// Each operation takes a printf format and its arguments. All are called concurrently from application
/// threads, delivery threads and the retry thread, and some under locks of the connector: an
/// implementation must be thread-safe, must not call back into the connector, and must not call exit().
/// The order of the operations is a binary contract.
class SMARTHOME_EXPORT ILogger {
public:
    virtual ~ILogger();

    /// A change of state: connected, started, subscribed.
    virtual void info(const char* format, ...) NIPC_PRINTF_FORMAT = 0;
    /// Every step, several lines per message. Some carry the whole payload: up to 5 MiB, and private.
    virtual void debug(const char* format, ...) NIPC_PRINTF_FORMAT = 0;
    /// Something was lost, or does not work.
    virtual void error(const char* format, ...) NIPC_PRINTF_FORMAT = 0;
    /// Never called by the library; a logger need not supply it.
    virtual void verbose(const char* format, ...) NIPC_PRINTF_FORMAT;
    /// Something is being tried again, or a call had no effect.
    virtual void warn(const char* format, ...) NIPC_PRINTF_FORMAT = 0;
};

}  // namespace nipcconnector
