// Two services in one process, and a client of each.
#include <vector>

#include "Served.h"
#include "nipcconnector/adapters/StderrLogger.h"

namespace {

using nipcconnector::ConnectionWatch;
using nipcconnector::NIPCConnector;
using nipcconnector::StderrLogger;

// [offer]
bool offer(const std::string& name, std::uint16_t uuid) {
    const auto server = NIPCConnector::getInstance(false, name, {name, uuid},
                                                   std::make_unique<StderrLogger>(name + " server"), nullptr);
    if (!server) return false;
    server->registerSyncRequestHandler(
        "whoAreYou", [name](const char*, unsigned int) { return std::vector<char>(name.begin(), name.end()); });
    return server->initialize();  // The connector stays, also when nobody keeps a pointer to it.
}
// [offer]

// [use]
std::string ask(const std::string& name, std::uint16_t uuid) {
    const ConnectionWatch watch;
    const auto client = NIPCConnector::getInstance(true, name, {name, uuid},
                                                   std::make_unique<StderrLogger>(name + " client"), watch.recorder());
    if (!client || !client->initialize()) return {};
    if (!howto::waitUntilServed(*client, watch, "whoAreYou", std::chrono::seconds(10))) return {};
    const auto result = client->makeSyncRequest("", "whoAreYou", nullptr, 0);
    return {result.response.begin(), result.response.end()};
}
// [use]

}  // namespace

int main() {
    if (!offer("door", 4303) || !offer("window", 4304)) return 1;
    return ask("door", 4303) == "door" && ask("window", 4304) == "window" ? 0 : 1;
}
