// thermostat-observed [ADDRESS]: asks the thermostat for its temperature twice a second, and for its humidity, which it
// does not know, until SIGINT or SIGTERM. What the connector says goes through spdlog, what it counts can be scraped at
// http://ADDRESS/metrics.

#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>

#include <cstdlib>

#include "Protocol.h"
#include "StopSignal.h"
#include "nipcconnector/NIPCConnector.h"
#include "nipcconnector/adapters/ConnectionWatch.h"
#include "nipcconnector/adapters/PrometheusEndpoint.h"
#include "nipcconnector/adapters/RateLimitedLogger.h"
#include "nipcconnector/adapters/SpdlogLogger.h"

int main(int argc, char** argv) {
    using namespace nipcconnector;
    thermostat::holdStopSignals();
    const auto log = spdlog::stderr_color_mt("observed");

    const auto endpoint = PrometheusEndpoint::serve(argc > 1 ? argv[1] : "127.0.0.1:9464");
    if (!endpoint) {
        log->critical("the address for the metrics cannot be had");
        return EXIT_FAILURE;
    }
    log->info("metrics at http://127.0.0.1:{}/metrics", endpoint->port());

    // While the service is away, each request is a line: ten of a kind every ten seconds are enough.
    auto logger = std::make_unique<RateLimitedLogger>(std::make_unique<SpdlogLogger>(log));
    const ConnectionWatch watch(
        [log](bool connected) { log->info(connected ? "the thermostat is there" : "the thermostat is gone"); });
    const auto client = NIPCConnector::getInstance(true, "observed", {thermostat::serviceName, thermostat::serviceUuid},
                                                   std::move(logger), watch.recorder(endpoint->recorder()));
    if (!client) return EXIT_FAILURE;
    client->subscribeForEvent(
        thermostat::serviceName, thermostat::temperatureChanged,
        [log](const char* data, unsigned int length) { log->info("changed: {}", std::string(data, length)); });
    endpoint->reportAtScrape(client);
    if (!client->initialize()) return EXIT_FAILURE;
    watch.waitUntilConnected(*client, std::chrono::seconds(5));  // If not: the requests below fail until it is.

    do {
        for (const char* request : {thermostat::getTemperature, "getHumidity"}) {
            const auto result = client->makeSyncRequest(thermostat::serviceName, request, nullptr, 0);
            if (result.status == smarthome::RequestStatus::Success)
                log->info("{}: {}", request, std::string(result.response.begin(), result.response.end()));
        }
    } while (!thermostat::stopRequested(std::chrono::milliseconds(500)));
    return EXIT_SUCCESS;
}
