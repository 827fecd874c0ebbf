#include <nipcconnector/NIPCConnector.h>
#include <nipcconnector/testing/FakePlatform.h>

int main() {
    auto& platform = nipcconnector::testing::FakePlatform::instance();
    platform.failNext(nipcconnector::testing::Operation::Start, -1, 1);
    const auto server = nipcconnector::NIPCConnector::getInstance(false, "scripted", {"scripted", 1}, nullptr, nullptr);
    return server->initialize() && platform.waitForCalls(nipcconnector::testing::Operation::Start, 2) ? 0 : 1;
}
