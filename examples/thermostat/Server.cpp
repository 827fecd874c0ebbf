// thermostat-server: offers the thermostat until SIGINT or SIGTERM.

#include <cstdio>
#include <cstdlib>

#include "Heater.h"
#include "Payload.h"
#include "Protocol.h"
#include "StdoutRecorder.h"
#include "StopSignal.h"
#include "nipcconnector/adapters/ConnectionWatch.h"
#include "nipcconnector/adapters/StderrLogger.h"

namespace {

using namespace thermostat;
using nipcconnector::NIPCConnector;
using Respond = std::function<void(bool, const char*, unsigned int)>;

std::vector<char> bytes(const std::string& text) { return {text.begin(), text.end()}; }

void respondWith(const Respond& respond, const std::string& answer) {
    respond(true, answer.data(), static_cast<unsigned int>(answer.size()));
}

/// Publishes every change of the temperature to all clients.
std::shared_ptr<Heater> startHeater(const std::shared_ptr<NIPCConnector>& server) {
    return std::make_shared<Heater>([server, number = 0](double temperature) mutable {
        server->publishEvent(temperatureChanged, std::to_string(++number) + " " + toText(temperature));
    });
}

// Handlers live as long as the connector, that is until the process ends, well after main() is left: what
// they use is captured by value or shared, never by reference.

void offerTemperature(NIPCConnector& server, const std::shared_ptr<Heater>& heater) {
    server.registerSyncRequestHandler(
        getTemperature, [heater](const char*, unsigned int) { return bytes(toText(heater->temperature())); });

    server.registerAsyncRequestHandler(setTarget, [heater](const char* data, unsigned int length,
                                                           const Respond& respond, const std::string& requestId) {
        // Heating takes a while: the heater's thread answers, and other requests are served meanwhile.
        const std::string text(data, length);  // `data` is gone when this handler returns.
        std::printf("request %s: heat to %s\n", requestId.c_str(), text.c_str());
        heater->setTarget(std::strtod(text.c_str(), nullptr), [respond, text] { respondWith(respond, text); });
    });

    server.registerAsyncRequestHandler(
        readSensors, [heater](const char*, unsigned int, const Respond& respond, const std::string&) {
            for (const char* sensor : {"door", "window", "ceiling"})
                respondWith(respond, std::string(sensor) + " " + toText(heater->temperature()));
        });
}

void offerFiles(NIPCConnector& server) {
    const auto history = std::make_shared<const std::string>(makePayload("history", historySize));

    server.registerAsyncRequestHandler(
        uploadFirmware, [](const char* data, unsigned int length, const Respond& respond, const std::string&) {
            const std::string sum = checksum(data, length);
            std::printf("received firmware, %u bytes, checksum %s\n", length, sum.c_str());
            respondWith(respond, sum);
        });

    server.registerAsyncRequestHandler(
        downloadHistory, [history](const char*, unsigned int, const Respond& respond, const std::string& requestId) {
            std::printf("request %s: send history, %zu bytes, checksum %s\n", requestId.c_str(), history->size(),
                        checksum(history->data(), historySize).c_str());
            respondWith(respond, *history);
        });

    server.registerSyncRequestHandler(historyChecksum, [history](const char*, unsigned int) {
        return bytes(checksum(history->data(), historySize));
    });
}

}  // namespace

int main() {
    holdStopSignals();
    std::setvbuf(stdout, nullptr, _IOLBF, 0);

    const nipcconnector::ConnectionWatch watch;
    const auto server = NIPCConnector::getInstance(false, serviceName, {serviceName, serviceUuid},
                                                   std::make_unique<nipcconnector::StderrLogger>(serviceName),
                                                   watch.recorder(std::make_unique<StdoutRecorder>()));
    if (!server) return EXIT_FAILURE;

    // Handlers first: a client may ask as soon as the service is offered.
    const auto heater = startHeater(server);
    offerTemperature(*server, heater);
    offerFiles(*server);
    if (!server->initialize()) return EXIT_FAILURE;

    if (!watch.waitUntilConnected(*server, std::chrono::seconds(10))) {
        std::printf("the service cannot be offered\n");
        return EXIT_FAILURE;
    }
    std::printf("the service is up\n");
    while (!stopRequested(std::chrono::hours(1))) {
    }
    heater->stop();
    std::printf("the service ends\n");
    return EXIT_SUCCESS;
}
