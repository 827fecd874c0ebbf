#include <nipcconnector/NIPCConnector.h>
#include <unistd.h>

int main() {
    using nipcconnector::NIPCConnector;
    const auto server = NIPCConnector::getInstance(false, "echo", {"echo", 1}, nullptr, nullptr);
    server->registerSyncRequestHandler(
        "echo", [](const char* data, unsigned int length) { return std::vector<char>(data, data + length); });
    const auto client = NIPCConnector::getInstance(true, "echo", {"echo", 1}, nullptr, nullptr);
    if (!server->initialize() || !client->initialize()) return 1;
    while (client->makeSyncRequest("echo", "echo", "hello", 5).response.size() != 5) usleep(10000);
}
