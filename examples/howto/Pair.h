#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Served.h"
#include "nipcconnector/adapters/StderrLogger.h"

namespace howto {

/// A service and a client of it, in one process: enough to show how they deal with each other.
class Pair {
public:
    Pair(const std::string& name, std::uint16_t uuid)
        : server(nipcconnector::NIPCConnector::getInstance(false, name, {name, uuid}, logger(name), nullptr)),
          client(nipcconnector::NIPCConnector::getInstance(true, name, {name, uuid}, logger(name), watch.recorder())) {}

    /// To be called when the handlers are registered.
    bool connect() const {
        server->registerSyncRequestHandler("ping", [](const char*, unsigned int) { return std::vector<char>{'!'}; });
        return server->initialize() && client->initialize() &&
               waitUntilServed(*client, watch, "ping", std::chrono::seconds(10));
    }

private:
    static std::unique_ptr<nipcconnector::ILogger> logger(const std::string& name) {
        return std::make_unique<nipcconnector::StderrLogger>(name);
    }

    const nipcconnector::ConnectionWatch watch;

public:
    const std::shared_ptr<nipcconnector::NIPCConnector> server;
    const std::shared_ptr<nipcconnector::NIPCConnector> client;
};

}  // namespace howto
