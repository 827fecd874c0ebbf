// A server, or a client connected to it, that does nothing more: what scripts/footprint looks at.
#include <unistd.h>

#include <cstdio>
#include <string>

#include "nipcconnector/NIPCConnector.h"

int main(int argc, char** argv) {
    const bool isClient = argc > 1 && std::string(argv[1]) == "client";
    const auto connector =
        nipcconnector::NIPCConnector::getInstance(isClient, "idle", {"idle", 4711}, nullptr, nullptr);
    if (!connector) return 1;
    connector->registerSyncRequestHandler("there?",
                                          [](const char*, unsigned int) { return std::vector<char>(1, 'y'); });
    if (!connector->initialize()) return 1;
    if (isClient) {
        while (connector->makeSyncRequest("", "there?", "", 0).status != smarthome::RequestStatus::Success)
            usleep(50000);
    }
    std::puts("ready");
    std::fflush(stdout);
    for (;;) pause();
}
