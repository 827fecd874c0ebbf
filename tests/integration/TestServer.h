#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "Process.h"
#include "nipcconnector/NIPCConnector.h"

/// A connector of this process. Connectors live until it ends, so every test uses names and numbers of its own.
using Connector = nipcconnector::NIPCConnector;

/// Only tells that the service has started.
class StartLogger : public nipcconnector::ILogger {
public:
    void info(const char*, ...) override {}
    void debug(const char* format, ...) override {
        if (std::string(format) == "Initializing IPC server..done") started = true;
    }
    void error(const char*, ...) override {}
    void warn(const char*, ...) override {}
    static inline std::atomic<bool> started{false};
};

/// `size` bytes, zeros among them, different at every offset and for every size.
std::string pattern(std::size_t size);
/// Tells two long texts apart and is short.
std::string digest(const char* data, std::size_t size);

/// The "server" role: offers the service of this number, with the handlers the tests speak of.
int runServer(const std::vector<std::string>& arguments);
