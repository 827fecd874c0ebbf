#include <unistd.h>

#include <cstdio>

#include "nipcconnector/NIPCConnector.h"

int main() {
    const auto client = nipcconnector::NIPCConnector::getInstance(true, "greeter", {"greeter", 77}, nullptr, nullptr);
    if (!client || !client->initialize()) return 1;
    for (;;) {
        const auto result = client->makeSyncRequest("greeter", "greet", "world", 5);
        if (result.status == smarthome::RequestStatus::Success)
            return std::printf("%.*s\n", static_cast<int>(result.response.size()), result.response.data()) < 0;
        usleep(50000);  // Not connected yet: the connector goes on trying in the background, and so do we.
    }
}
