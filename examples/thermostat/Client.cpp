// thermostat-client NAME TARGET: makes every kind of request, then watches the thermostat until
// SIGINT or SIGTERM. When the service goes away it waits for it to come back and makes them all again.

#include <cstdio>
#include <cstdlib>

#include "Protocol.h"
#include "StdoutRecorder.h"
#include "StopSignal.h"
#include "Tour.h"
#include "nipcconnector/adapters/ConnectionWatch.h"
#include "nipcconnector/adapters/StderrLogger.h"

namespace {

using namespace thermostat;
using nipcconnector::ConnectionWatch;
using nipcconnector::NIPCConnector;

/// Waits until the service is there and answers: a connection that has just died counts as one for a moment
/// longer. False when the process is asked to stop first.
bool waitUntilServed(NIPCConnector& client, const ConnectionWatch& watch, Tour& tour) {
    for (;;) {
        if (watch.waitUntilConnected(client, std::chrono::milliseconds(500)) && tour.temperature()) return true;
        if (stopRequested(std::chrono::milliseconds(10))) return false;
    }
}

/// Asks for the temperature now and then. False when the process is asked to stop, true when the service is
/// gone.
bool watchUntilLost(Tour& tour) {
    while (!stopRequested(std::chrono::milliseconds(100)))
        if (!tour.temperature()) return true;
    return false;
}

/// The life of the client; false when any answer was not what it should be.
bool live(NIPCConnector& client, const ConnectionWatch& watch, Tour& tour) {
    for (int round = 1; waitUntilServed(client, watch, tour); ++round) {
        std::printf("round %d: connected\n", round);
        const bool right = tour.run();
        client.reportAggregateMetrics();
        std::printf("round %d: %s\n", round, right ? "everything is right" : "SOMETHING IS WRONG");
        if (!right) return false;
        if (!watchUntilLost(tour)) return true;
        std::printf("the service is gone: waiting for it\n");
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s NAME TARGET\n", argv[0]);
        return EXIT_FAILURE;
    }
    holdStopSignals();
    std::setvbuf(stdout, nullptr, _IOLBF, 0);

    const ConnectionWatch watch;
    const auto client = NIPCConnector::getInstance(true, argv[1], {serviceName, serviceUuid},
                                                   std::make_unique<nipcconnector::StderrLogger>(argv[1]),
                                                   watch.recorder(std::make_unique<StdoutRecorder>()));
    if (!client) return EXIT_FAILURE;

    Tour tour(client, argv[1], argv[2]);
    if (!client->initialize()) return EXIT_FAILURE;
    return live(*client, watch, tour) ? EXIT_SUCCESS : EXIT_FAILURE;
}
