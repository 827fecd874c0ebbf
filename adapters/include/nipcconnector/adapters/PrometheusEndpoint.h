#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "nipcconnector/IMetricsRecorder.h"
#include "nipcconnector/NIPCConnector.h"

namespace nipcconnector {

/// Serves the metrics of a process's connectors over HTTP, at /metrics, to be scraped by Prometheus. Two threads
/// answer; whoever can reach the address can read. Thread-safe.
class PrometheusEndpoint {
public:
    /// Serves on `address`, the loopback unless told otherwise; port 0 takes any that is free. Returns an empty
    /// pointer when the address cannot be had.
    static std::unique_ptr<PrometheusEndpoint> serve(const std::string& address = "127.0.0.1:9464");
    /// Stops serving; the recorders go on counting.
    ~PrometheusEndpoint();
    PrometheusEndpoint(const PrometheusEndpoint&) = delete;
    PrometheusEndpoint& operator=(const PrometheusEndpoint&) = delete;

    /// Where it serves.
    std::uint16_t port() const;

    /// A PrometheusRecorder, for getInstance() of one connector.
    std::unique_ptr<IMetricsRecorder> recorder() const;

    /// From now on each scrape asks this connector for its aggregate report first, so that the gauges are fresh.
    /// The connector's recorder should be one of ours.
    void reportAtScrape(const std::shared_ptr<NIPCConnector>& connector);

private:
    struct Server;

    explicit PrometheusEndpoint(std::unique_ptr<Server> running);

    const std::unique_ptr<Server> server;
};

}  // namespace nipcconnector
