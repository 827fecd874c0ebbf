#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Process.h"
#include "nipcconnector/NIPCConnector.h"
#include "nipcconnector/testing/Journal.h"

using Connector = nipcconnector::NIPCConnector;

/// A connector of this process and what it logged and measured. Connectors live until the process ends, so every
/// test uses names and numbers of its own.
struct Node {
    std::shared_ptr<nipcconnector::testing::Journal> journal;
    std::shared_ptr<Connector> connector;
};

Node server(std::uint16_t uuid);
Node client(std::uint16_t uuid, const std::string& name);

/// `size` bytes, zeros among them, different at every offset and for every size.
std::string pattern(std::size_t size);
/// Tells two long texts apart and is short.
std::string digest(const char* data, std::size_t size);

/// The "server" role: offers the services numbered in `arguments`, with the handlers the tests speak of.
int runServer(const std::vector<std::string>& arguments);
