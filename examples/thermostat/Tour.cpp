#include "Tour.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <future>

#include "Payload.h"
#include "Protocol.h"

namespace thermostat {

namespace {

using nipcconnector::NIPCConnector;
using smarthome::RequestStatus;

constexpr std::chrono::seconds patience(10);

std::optional<std::string> askNow(NIPCConnector& client, const char* request) {
    const auto result = client.makeSyncRequest(serviceName, request, nullptr, 0);
    if (result.status != RequestStatus::Success) return std::nullopt;
    return std::string(result.response.begin(), result.response.end());
}

/// Makes an asynchronous request and waits for its answer; nothing, when it fails or none comes in time.
std::optional<std::string> ask(NIPCConnector& client, const char* request, const std::string& payload) {
    // Shared, because the answer may still come after we have given up.
    const auto answer = std::make_shared<std::promise<std::optional<std::string>>>();
    const auto callback = [answer](bool success, const char* data, unsigned int length) {
        answer->set_value(success ? std::optional<std::string>(std::string(data, length)) : std::nullopt);
    };
    const auto status = client.makeAsyncRequest(serviceName, request, payload.data(),
                                                static_cast<unsigned int>(payload.size()), callback);
    if (status != RequestStatus::Success) return std::nullopt;
    auto future = answer->get_future();
    if (future.wait_for(patience) != std::future_status::ready) return std::nullopt;
    return future.get();
}

bool endsWith(const std::string& text, const std::string& ending) {
    return text.size() >= ending.size() && text.compare(text.size() - ending.size(), ending.size(), ending) == 0;
}

}  // namespace

void Inbox::add(std::string message) {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        messages.push_back(std::move(message));
        if (messages.size() > 100) messages.pop_front();
    }
    changed.notify_all();
}

void Inbox::clear() {
    const std::lock_guard<std::mutex> lock(mutex);
    messages.clear();
}

bool Inbox::waitForCount(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, patience, [&] { return messages.size() >= count; });
}

bool Inbox::waitForEnding(const std::string& ending) {
    const auto matches = [&](const std::string& message) { return endsWith(message, ending); };
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, patience, [&] { return std::any_of(messages.begin(), messages.end(), matches); });
}

Tour::Tour(std::shared_ptr<NIPCConnector> connector, std::string name, std::string targetTemperature)
    : client(std::move(connector)), clientName(std::move(name)), target(std::move(targetTemperature)) {
    client->subscribeForEvent(serviceName, temperatureChanged, [inbox = events](const char* data, unsigned int length) {
        const std::string event(data, length);
        std::printf("event temperatureChanged: %s\n", event.c_str());
        inbox->add(event);
    });
    client->setRecurringCallback([inbox = readings](bool success, const char* data, unsigned int length) {
        if (success) inbox->add(std::string(data, length));
    });
}

bool Tour::run() {
    events->clear();
    readings->clear();
    return readTemperature() && heatUp() && readAllSensors() && upload() && download();
}

std::optional<std::string> Tour::temperature() { return askNow(*client, getTemperature); }

bool Tour::readTemperature() {
    const auto answer = temperature();
    std::printf("getTemperature (synchronous): %s\n", answer ? answer->c_str() : "no answer");
    return answer.has_value();
}

bool Tour::heatUp() {
    const auto answer = ask(*client, setTarget, target);
    const bool right = answer == target;
    std::printf("setTarget %s (answered later by another thread): %s\n", target.c_str(), right ? "reached" : "failed");
    return right && events->waitForEnding(" " + target);
}

bool Tour::readAllSensors() {
    const bool sent =
        client->makeAsyncRequestWithRecurringCallback(serviceName, readSensors, nullptr, 0) == RequestStatus::Success;
    const bool right = sent && readings->waitForCount(sensorCount);
    std::printf("readSensors (recurring callback): %s\n", right ? "one answer from each sensor" : "answers missing");
    return right;
}

bool Tour::upload() {
    const std::string image = makePayload(clientName, firmwareSize);
    const std::string sum = checksum(image.data(), firmwareSize);
    const auto answer = ask(*client, uploadFirmware, image);
    std::printf("uploadFirmware: sent %zu bytes, checksum %s, the server got %s\n", image.size(), sum.c_str(),
                answer ? answer->c_str() : "nothing");
    return answer == sum;
}

bool Tour::download() {
    const auto expected = askNow(*client, historyChecksum);
    const auto history = ask(*client, downloadHistory, "");
    if (!expected || !history) {
        std::printf("downloadHistory: no answer\n");
        return false;
    }
    const std::string sum = checksum(history->data(), static_cast<unsigned int>(history->size()));
    std::printf("downloadHistory: got %zu bytes, checksum %s, the server sent %s\n", history->size(), sum.c_str(),
                expected->c_str());
    return history->size() == historySize && sum == *expected;
}

}  // namespace thermostat
