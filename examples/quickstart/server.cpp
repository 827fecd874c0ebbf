#include <unistd.h>

#include "nipcconnector/NIPCConnector.h"

int main() {
    const auto server = nipcconnector::NIPCConnector::getInstance(false, "greeter", {"greeter", 77}, nullptr, nullptr);
    if (!server) return 1;
    server->registerSyncRequestHandler("greet", [](const char* name, unsigned int length) {
        const std::string answer = "Hello, " + std::string(name, length) + "!";
        return std::vector<char>(answer.begin(), answer.end());
    });
    if (!server->initialize()) return 1;
    for (;;) pause();
}
