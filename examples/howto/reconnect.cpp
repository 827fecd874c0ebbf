// A component that shows the state of a lamp, whatever becomes of the lamp's process. Run with "serve STATE" it is
// the lamp.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <mutex>

#include "Served.h"

namespace {

using nipcconnector::ConnectionWatch;
using nipcconnector::NIPCConnector;
using smarthome::RequestStatus;

/// The lamp's state as this component knows it. Thread-safe.
class LampView {
public:
    void set(const std::string& newState) {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            state = newState;
        }
        changed.notify_all();
    }

    bool waitFor(const std::string& wanted) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(10), [&] { return state == wanted; });
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    std::string state = "unknown";
};

// [start]
std::shared_ptr<NIPCConnector> startClient(const ConnectionWatch& watch, const std::shared_ptr<LampView>& view) {
    auto client = NIPCConnector::getInstance(true, "lamp", {"lamp", 4305}, nullptr, watch.recorder());
    if (!client) return nullptr;
    // Once, and before initialize(): subscriptions outlast the connection.
    client->subscribeForEvent("lamp", "stateChanged", [view](const char* data, unsigned int length) {
        view->set({data, length});
    });
    return client->initialize() ? client : nullptr;
}
// [start]

// [follow]
/// Keeps the view right. Runs on a thread of its own.
void follow(NIPCConnector& client, const ConnectionWatch& watch, LampView& view, const std::atomic<bool>& stop) {
    constexpr std::chrono::milliseconds aWhile(200);
    while (!stop) {
        if (!howto::waitUntilServed(client, watch, "getState", aWhile)) continue;
        // What was published while we were away is lost: ask.
        const auto answer = client.makeSyncRequest("lamp", "getState", nullptr, 0);
        if (answer.status != RequestStatus::Success) continue;
        view.set({answer.response.begin(), answer.response.end()});

        while (!stop && !watch.waitUntilLost(client, aWhile)) {
        }
        view.set("unknown");
    }
}
// [follow]

int serve(const std::string& state) {
    const auto server = NIPCConnector::getInstance(false, "lamp", {"lamp", 4305}, nullptr, nullptr);
    server->registerSyncRequestHandler(
        "getState", [state](const char*, unsigned int) { return std::vector<char>(state.begin(), state.end()); });
    if (!server->initialize()) return 1;
    for (;;) pause();
}

pid_t startLamp(const char* self, const char* state) {
    const pid_t child = fork();
    if (child == 0) {
        execl(self, self, "serve", state, nullptr);
        _exit(127);
    }
    return child;
}

void kill(pid_t child) {
    ::kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "serve") == 0) return serve(argv[2]);

    const ConnectionWatch watch;
    const auto view = std::make_shared<LampView>();
    const auto client = startClient(watch, view);
    if (!client) return 1;
    std::atomic<bool> stop(false);
    std::thread follower([&] { follow(*client, watch, *view, stop); });
    bool right = true;
    for (const char* state : {"on", "off"}) {
        const pid_t lamp = startLamp(argv[0], state);
        right = right && view->waitFor(state);
        kill(lamp);
        right = right && view->waitFor("unknown");
    }
    stop = true;
    follower.join();
    return right ? 0 : 1;
}
