#pragma once

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "nipcconnector/NIPCConnector.h"

namespace thermostat {

/// Collects what arrives on a delivery thread until the application's thread has seen enough of
/// it; keeps the latest hundred.
class Inbox {
public:
    void add(std::string message);
    void clear();
    /// Waits a few seconds at most for `count` messages, or for one that ends with `ending`.
    bool waitForCount(std::size_t count);
    bool waitForEnding(const std::string& ending);

private:
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<std::string> messages;
};

/// One walk through everything that a client can ask of the thermostat.
class Tour {
public:
    /// Subscribes for the event and sets the recurring callback; `targetTemperature` is what setTarget will ask for.
    Tour(std::shared_ptr<nipcconnector::NIPCConnector> connector, std::string name, std::string targetTemperature);

    /// Makes all requests, one after the other; false unless each was answered rightly.
    bool run();

    /// The temperature, or nothing while the service cannot be reached.
    std::optional<std::string> temperature();

private:
    bool readTemperature();
    bool heatUp();
    bool readAllSensors();
    bool upload();
    bool download();

    const std::shared_ptr<nipcconnector::NIPCConnector> client;
    const std::string clientName;
    const std::string target;
    // Shared with the functions that the connector keeps until the process ends.
    const std::shared_ptr<Inbox> events = std::make_shared<Inbox>();
    const std::shared_ptr<Inbox> readings = std::make_shared<Inbox>();
};

}  // namespace thermostat
