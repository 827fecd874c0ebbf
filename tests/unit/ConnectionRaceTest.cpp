#include <chrono>
#include <future>

#include "ConnectorTest.h"

namespace nipctest {
namespace {

/// Threads that meet at the worst moment, held there by a hook.
using ConnectionRace = ConnectorTest;

TEST_F(ConnectionRace, ALossBeforeTheHandleIsStoredDoesNotLeaveADeadConnection) {
    const struct {
        const char* name;
        std::vector<std::pair<std::uint16_t, int>> events;
    } cases[] = {{"done, then down", {{NEX_NIPC_EVENT_CONNECTION_DONE, 0}, {NEX_NIPC_EVENT_SERVER_DOWN, 0}}},
                 {"failed", {{NEX_NIPC_EVENT_CONNECTION_DONE, -5}}},
                 {"done, then failed", {{NEX_NIPC_EVENT_CONNECTION_DONE, 0}, {NEX_NIPC_EVENT_CONNECTION_DONE, -5}}},
                 {"down", {{NEX_NIPC_EVENT_SERVER_DOWN, 0}}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        platform.reset();
        const Subject client = make(Role::Client);
        platform.onCall(Operation::Connect, [&](const Call&) {
            platform.onCall(Operation::Connect, nullptr);
            for (const auto& event : c.events) platform.deliverEvent(event.first, 0, event.second);
        });
        EXPECT_TRUE(client->initialize());
        expectConnected(client, 2);
    }
}

TEST_F(ConnectionRace, ALossBetweenSuccessAndTheEndOfTheWorkerReconnects) {
    const Subject client = make(Role::Client);
    Gate gate;
    client.journal->onLine("NIPC_CLIENT_INIT succeeded after 0 retries", [&] { gate.pass(); });
    EXPECT_TRUE(client->initialize());
    ASSERT_TRUE(gate.awaitArrival());
    platform.deliverEvent(NEX_NIPC_EVENT_SERVER_DOWN);
    gate.open();
    expectConnected(client, 2);
}

TEST_F(ConnectionRace, ARequestThatReconnectsDuringADisconnectKeepsItsConnection) {
    const Subject client = connectedClient();
    platform.onCall(Operation::Disconnect, [&](const Call&) {
        platform.onCall(Operation::Disconnect, nullptr);
        EXPECT_EQ(client->makeSyncRequest("", "name", "", 0).status, RequestStatus::Failure);
        EXPECT_TRUE(client.journal->waitFor("Retry stopped for NIPC_CLIENT_INIT"));
    });
    EXPECT_TRUE(Access::deinitClient(*client));
    expectConnected(client, 2);
    EXPECT_EQ(client->makeSyncRequest("", "name", "", 0).status, RequestStatus::Success);
    EXPECT_EQ(platform.calls(Operation::RpcSync).back().handle, platform.calls(Operation::Connect).back().handle);
}

TEST_F(ConnectionRace, AConnectWithoutAThreadFailsAndTheNextRequestTriesAgain) {
    const Subject client = make(Role::Client);
    {
        const ThreadShortage shortage;
        EXPECT_FALSE(client->initialize());
        EXPECT_FALSE(Access::isConnecting(*client));
        EXPECT_EQ(client->makeSyncRequest("", "name", "", 0).status, RequestStatus::Failure);
        EXPECT_EQ(client.journal->lines().back(), error("Failed to initiate reconnection"));
    }
    client->makeSyncRequest("", "name", "", 0);
    expectConnected(client, 1);
}

TEST_F(ConnectionRace, TheReportAndAConnectTakeTheirLocksTogether) {
    const Subject client = make(Role::Client);
    Gate gate;
    client.journal->onLine("Successfully connected to server", [&] { gate.pass(); });
    EXPECT_TRUE(client->initialize());
    ASSERT_TRUE(gate.awaitArrival());
    auto report = std::async(std::launch::async, [&] { client->reportAggregateMetrics(); });
    // A report that takes one lock and waits for the other gets the first within this time.
    const auto limit = std::chrono::steady_clock::now() + std::chrono::milliseconds(200);
    while (std::chrono::steady_clock::now() < limit && Access::statsMutex(*client).try_lock()) {
        Access::statsMutex(*client).unlock();
        std::this_thread::yield();
    }
    gate.open();
    report.get();
    expectConnected(client, 1);
}

TEST_F(ConnectionRace, AServiceMayBeCalledBeforeItsStartHasReturned) {
    const Subject server = make(Role::Server);
    platform.onCall(Operation::Start, [&](const Call& start) {
        clientConnects(5);
        EXPECT_TRUE(server->publishEvent("changed"));
        EXPECT_EQ(platform.calls(Operation::Callback).at(0).handle, start.handle);
    });
    EXPECT_TRUE(server->initialize());
    EXPECT_EQ(platform.calls(Operation::Callback).size(), 1U);
}

}  // namespace
}  // namespace nipctest
