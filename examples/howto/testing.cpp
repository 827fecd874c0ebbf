// The test of a component, without a service and without a second process.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "nipcconnector/adapters/ConnectionWatch.h"
#include "nipcconnector/testing/FakePlatform.h"
#include "nipcconnector/testing/FakeTime.h"

namespace {

using nipcconnector::ConnectionWatch;
using nipcconnector::NIPCConnector;
using smarthome::RequestStatus;
using namespace nipcconnector::testing;

// [component]
/// The component: a button that switches a lamp, and shows what became of it.
class Button {
public:
    explicit Button(std::shared_ptr<NIPCConnector> connector) : client(std::move(connector)) {
        client->subscribeForEvent("lamp", "switched", [shared = shown](const char* data, unsigned int length) {
            shared->set({data, length});
        });
    }

    void press() {
        const auto status = client->makeAsyncRequest(
            "lamp", "switch", "on", 2, [shared = shown](bool success, const char* data, unsigned int length) {
                shared->set(success ? std::string(data, length) : "refused");
            });
        if (status != RequestStatus::Success) shown->set("not there");
    }

    std::string shows() const { return shown->get(); }

private:
    struct Shown {
        void set(const std::string& newText) {
            const std::lock_guard<std::mutex> lock(mutex);
            text = newText;
        }
        std::string get() {
            const std::lock_guard<std::mutex> lock(mutex);
            return text;
        }
        std::mutex mutex;
        std::string text;
    };

    const std::shared_ptr<NIPCConnector> client;
    const std::shared_ptr<Shown> shown = std::make_shared<Shown>();
};
// [component]

void expect(bool right, const char* what) {
    if (right) return;
    std::printf("wrong: %s\n", what);
    std::exit(EXIT_FAILURE);
}

// [fixture]
struct ButtonTest {
    FakeTime& time = FakeTime::instance();  // Before the first connector is made.
    FakePlatform& platform = FakePlatform::instance();
    const std::string name = uniqueName("button");  // A fresh connector for each test.
    const ConnectionWatch watch;
    const std::shared_ptr<NIPCConnector> client =
        NIPCConnector::getInstance(true, name, {"lamp", 4200}, nullptr, watch.recorder());
    Button button{client};

    ButtonTest() {
        platform.reset();
        time.reset();
        client->initialize();
        expect(watch.waitUntilConnected(*client, std::chrono::seconds(10)), "connects");
    }
};
// [fixture]

// [tests]
void testSwitchesAndShows() {
    ButtonTest test;
    test.button.press();
    const auto requests = test.platform.requests("switch");
    expect(requests.size() == 1 && requests[0].payload == "on", "asks the lamp");
    test.platform.answer(requests[0], true, "on");  // The callback has run when this returns.
    expect(test.button.shows() == "on", "shows the answer");
    test.platform.publish("switched", "off");
    expect(test.button.shows() == "off", "shows what others do");
}

void testShowsThatTheLampIsNotThere() {
    ButtonTest test;
    test.platform.failNext(Operation::RpcAsync, -ECONNRESET);
    test.button.press();
    expect(test.button.shows() == "not there", "shows a request that could not be sent");
}

void testComesBackAfterALongAbsence() {
    ButtonTest test;
    test.platform.failNext(Operation::Connect, -ECONNREFUSED, 50);
    test.platform.endService();
    // Fifty attempts, up to 5 s apart: with this clock they take no time.
    expect(test.platform.waitForCalls(Operation::Connect, 1 + 51), "tries until the lamp is there");
    expect(test.watch.waitUntilConnected(*test.client, std::chrono::seconds(10)), "is connected again");
    test.button.press();
    expect(test.platform.requests("switch").size() == 1, "works as before");
}
// [tests]

}  // namespace

int main() {
    testSwitchesAndShows();
    testShowsThatTheLampIsNotThere();
    testComesBackAfterALongAbsence();
}
