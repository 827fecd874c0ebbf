// remote on|off|watch: switches the lamp, or tells what becomes of it.
#include <cstdio>
#include <future>
#include <thread>

#include "nipcconnector/NIPCConnector.h"
#include "nipcconnector/adapters/ConnectionWatch.h"
#include "nipcconnector/adapters/StderrLogger.h"

using nipcconnector::NIPCConnector;
using smarthome::RequestStatus;

namespace {

bool tellState(NIPCConnector& client) {
    const auto result = client.makeSyncRequest("lamp", "isOn", nullptr, 0);
    if (result.status != RequestStatus::Success) return false;
    std::printf("the lamp is %s\n", std::string(result.response.begin(), result.response.end()).c_str());
    return true;
}

/// Waits until the lamp has answered. Connected is what the connector believes; an answer is the proof.
bool tellStateOnceThere(NIPCConnector& client, const nipcconnector::ConnectionWatch& watch) {
    while (watch.waitUntilConnected(client, std::chrono::seconds(10))) {
        if (tellState(client)) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

bool switchTo(NIPCConnector& client, const std::string& state) {
    // Shared with the callback, which may run when we have given up.
    const auto answer = std::make_shared<std::promise<bool>>();
    const auto status = client.makeAsyncRequest(
        "lamp", "switch", state.data(), static_cast<unsigned int>(state.size()),
        [answer](bool success, const char* /*data*/, unsigned int /*length*/) { answer->set_value(success); });
    if (status != RequestStatus::Success) return false;
    auto future = answer->get_future();
    return future.wait_for(std::chrono::seconds(5)) == std::future_status::ready && future.get();
}

void watchLamp(NIPCConnector& client, const nipcconnector::ConnectionWatch& watch) {
    for (;;) {
        while (!watch.waitUntilLost(client, std::chrono::hours(1))) {
        }
        std::printf("the lamp is gone\n");
        while (!tellStateOnceThere(client, watch)) {
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::string command = argc == 2 ? argv[1] : "watch";
    std::setvbuf(stdout, nullptr, _IOLBF, 0);

    const nipcconnector::ConnectionWatch watch;
    const auto client = NIPCConnector::getInstance(
        true, "remote", {"lamp", 4200}, std::make_unique<nipcconnector::StderrLogger>("remote"), watch.recorder());
    if (!client) return 1;
    client->subscribeForEvent("lamp", "switched", [](const char* data, unsigned int length) {
        std::printf("event: the lamp was switched %s\n", std::string(data, length).c_str());
    });

    if (!client->initialize() || !tellStateOnceThere(*client, watch)) {
        std::printf("there is no lamp\n");
        return 1;
    }
    if (command == "watch") watchLamp(*client, watch);
    const bool switched = switchTo(*client, command);
    std::printf(switched ? "switched\n" : "that did not work\n");
    return switched ? 0 : 1;
}
