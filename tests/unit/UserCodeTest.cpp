#include <cstdlib>
#include <stdexcept>
#include <thread>

#include "ConnectorTest.h"

namespace nipctest {
namespace {

using smarthome::AsyncResponseCallback;

/// What the application hands in: functions that throw, are empty, or call back when they are destroyed.
using UserCode = ConnectorTest;

std::size_t errors(const Subject& subject) {
    std::size_t found = 0;
    for (const auto& line : subject.journal->lines()) found += line.level == 'E' ? 1 : 0;
    return found;
}

TEST_F(UserCode, ThatThrowsOrIsEmptyIsContained) {
    const auto boom = [](const auto&...) -> void { throw std::runtime_error("boom"); };
    const auto boomSync = [](const char*, unsigned int) -> std::vector<char> { throw 5; };
    for (const bool empty : {false, true}) {
        SCOPED_TRACE(empty ? "empty" : "throwing");
        const Subject client = connectedClient();
        client->subscribeForEvent("", "event", empty ? smarthome::EventHandler() : boom);
        client->setRecurringCallback(empty ? AsyncResponseCallback() : boom);
        client->makeAsyncRequest("", "name", "", 0, empty ? AsyncResponseCallback() : boom);
        platform.deliverCallback(computeFunctionId("event"), "");
        EXPECT_EQ(errors(client), 1U);
        EXPECT_EQ(client.journal->count("Handled event"), 1U);
        platform.deliverCallback(ASYNC_RESPONSE_SUCCESS_ID, "", 2);
        EXPECT_EQ(errors(client), 2U);
        EXPECT_EQ(client.journal->count("Executed callback with id 2, functionId 1002"), 1U);
        platform.deliverCallback(ASYNC_RESPONSE_SUCCESS_ID, "", 1);
        EXPECT_EQ(client.journal->count("Executed callback with id 1, functionId 1002"), empty ? 0U : 1U);

        const Subject server = startedServer();
        server->registerSyncRequestHandler("get", empty ? smarthome::SyncRequestHandler() : boomSync);
        server->registerAsyncRequestHandler("set", empty ? smarthome::AsyncRequestHandler() : boom);
        EXPECT_EQ(platform.deliverRequest(SYNC_FUNCTION, computeFunctionId("get"), "", 5).status, -1);
        EXPECT_EQ(server.journal->count("Failed to find sync handler for request type get"), 1U);
        EXPECT_EQ(errors(server), 2U);
        EXPECT_EQ(platform.deliverRequest(ASYNC_FUNCTION, computeFunctionId("set"), "", 5).status, -1);
        EXPECT_EQ(server.journal->count("Failed to handle async request"), 1U);
    }
}

TEST_F(UserCode, ThatIsDestroyedMayCallTheConnector) {
    const Subject subject = connectedClient();
    NIPCConnector& connector = *subject;
    const auto goodbye = [&connector] {  // Whose captures say so when they are destroyed.
        const std::shared_ptr<void> farewell(nullptr, [&connector](void*) {
            connector.registerSyncRequestHandler("other", nullptr);
            connector.subscribeForEvent("", "other", nullptr);
            connector.setRecurringCallback(nullptr);
        });
        return [farewell](const auto&...) {};
    };
    for (int replaced = 0; replaced < 2; ++replaced) {
        connector.registerSyncRequestHandler("sync", [call = goodbye()](auto, auto) { return std::vector<char>(); });
        connector.registerAsyncRequestHandler("async", goodbye());
        connector.subscribeForEvent("", "event", goodbye());
        connector.setRecurringCallback(goodbye());
    }
    connector.unregisterSyncRequestHandler("sync");
    connector.unregisterAsyncRequestHandler("async");
    connector.unsubscribeForEvent("", "event");
    connector.setRecurringCallback(nullptr);
    platform.failNext(Operation::RpcAsync, -5);
    connector.makeAsyncRequest("", "name", "", 0, goodbye());
    connector.makeAsyncRequest("", "name", "", 0, goodbye());
    platform.deliverCallback(ASYNC_RESPONSE_SUCCESS_ID, "", 3);
    EXPECT_EQ(subject.journal->count("Registering sync request handler for request type other"), 10U);
}

TEST_F(UserCode, ALoggerAndARecorderThatThrowDoNotStopTheWorker) {
    struct Thrower : nipcconnector::ILogger, nipcconnector::IMetricsRecorder {
        void info(const char*, ...) override { complain(); }
        void debug(const char*, ...) override { complain(); }
        void error(const char*, ...) override { complain(); }
        void warn(const char*, ...) override { complain(); }
        void record(const std::string&, const std::vector<smarthome::TalvoraDimension>&) override { complain(); }
        void complain() const {
            if (std::this_thread::get_id() != quiet) throw std::runtime_error("disk full");
        }
        std::thread::id quiet = std::this_thread::get_id();
    };
    platform.failNext(Operation::Start, -98, 3);
    NIPCConnector server(false, "bare", {"service", 7}, std::make_unique<Thrower>(), std::make_unique<Thrower>());
    EXPECT_TRUE(server.initialize());
    ASSERT_TRUE(platform.waitForCalls(Operation::Start, 4));
    for (auto& retry = Access::retryManager(server); retry.isActive();) std::this_thread::yield();
    EXPECT_TRUE(Access::state(server).connected);
}

TEST_F(UserCode, AtTheEndOfTheProcessLeavesNothingThatDoesAnything) {
    GTEST_FLAG_SET(death_test_style, kDeathTestStyle);
    const auto end = [this] {
        static auto& kept = *new std::vector<Subject>;
        static auto& respond = *new AsyncResponseCallback;
        std::atexit([] {  // Runs after the registry's end.
            FakePlatform& fake = FakePlatform::instance();
            fake.forgetCalls();
            const bool silent = NIPCConnector::getInstance(true, "late", {"service", 7}, nullptr, nullptr) == nullptr &&
                                !kept[0]->publishEvent("late") &&
                                fake.deliverEvent(NEX_NIPC_EVENT_SERVER_DOWN).result == -1;
            respond(true, "late", 4);
            std::_Exit(silent && fake.calls(Operation::Callback).empty() ? 0 : 3);
        });
        NIPCConnector& server = *kept.emplace_back(startedServer());
        const auto bye = [&server](void*) { server.publishEvent("bye"); };
        // A handler that holds its connector, and calls it when it is destroyed.
        server.registerSyncRequestHandler(
            "hold", [held = kept[0].connector, farewell = std::shared_ptr<void>(nullptr, bye)](auto, auto) {
                return std::vector<char>();
            });
        kept[0]->registerAsyncRequestHandler("keep", [](auto, auto, auto responder, auto&) { respond = responder; });
        platform.deliverRequest(ASYNC_FUNCTION, computeFunctionId("keep"), "", 5, 9);
        kept.push_back(connectedClient());
        std::exit(respond ? 5 : 4);
    };
    EXPECT_EXIT(end(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace nipctest
