// lamp: a service that switches a lamp.
#include <atomic>
#include <csignal>
#include <cstdio>

#include "nipcconnector/NIPCConnector.h"
#include "nipcconnector/adapters/ConnectionWatch.h"
#include "nipcconnector/adapters/StderrLogger.h"

using nipcconnector::NIPCConnector;
using Respond = std::function<void(bool success, const char* data, unsigned int length)>;

namespace {

/// SIGINT and SIGTERM, which are from now on waited for and end nothing by themselves.
sigset_t holdEndingSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

void registerHandlers(const std::shared_ptr<NIPCConnector>& server) {
    const auto isOn = std::make_shared<std::atomic<bool>>(false);

    server->registerSyncRequestHandler("isOn", [isOn](const char*, unsigned int) {
        const std::string answer = *isOn ? "on" : "off";
        return std::vector<char>(answer.begin(), answer.end());
    });

    server->registerAsyncRequestHandler("switch", [isOn, server](const char* data, unsigned int length,
                                                                 const Respond& respond, const std::string& requestId) {
        const std::string wanted(data, length);
        std::printf("request %s: switch %s\n", requestId.c_str(), wanted.c_str());
        if (wanted != "on" && wanted != "off") {
            respond(false, nullptr, 0);
            return;
        }
        *isOn = wanted == "on";
        respond(true, wanted.data(), static_cast<unsigned int>(wanted.size()));
        server->publishEvent("switched", wanted);
    });
}

}  // namespace

int main() {
    const sigset_t ending = holdEndingSignals();  // Before anything starts a thread.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);

    const nipcconnector::ConnectionWatch watch;
    const auto server = NIPCConnector::getInstance(
        false, "lamp", {"lamp", 4200}, std::make_unique<nipcconnector::StderrLogger>("lamp"), watch.recorder());
    if (!server) return 1;
    registerHandlers(server);  // Before the first client can ask.
    if (!server->initialize() || !watch.waitUntilConnected(*server, std::chrono::seconds(10))) return 1;
    std::printf("the lamp is there\n");

    int signal = 0;
    sigwait(&ending, &signal);
    return 0;
}
