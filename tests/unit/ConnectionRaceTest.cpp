#include <chrono>
#include <future>

#include "ConnectorTest.h"

namespace nipctest {
namespace {

/// Threads that meet at the worst moment, held there by a hook.
using ConnectionRace = ConnectorTest;

constexpr std::uint16_t done = NEX_NIPC_EVENT_CONNECTION_DONE;
constexpr std::uint16_t down = NEX_NIPC_EVENT_SERVER_DOWN;

TEST_F(ConnectionRace, WhatTheListenerHearsDuringAConnectLeavesNoDeadConnection) {
    using Events = std::vector<std::pair<std::uint16_t, int>>;
    const struct {
        const char* name;
        bool connectedBefore;
        Events before, during, afterwards;
        bool fails = false;
    } cases[] = {{"done, then down", false, {}, {{done, 0}, {down, 0}}, {}},
                 {"failed", false, {}, {{done, -5}}, {}},
                 {"done, then failed", false, {}, {{done, 0}, {done, -5}}, {}},
                 {"down", false, {}, {{down, 0}}, {}},
                 {"down, and done after the attempt", false, {}, {{down, 0}}, {{done, 0}}},
                 {"down, before the worker has ended", false, {}, {}, {{down, 0}}},
                 {"done, of an attempt that fails", false, {}, {{done, 0}}, {}, true},
                 {"done, after an old connection failed", true, {{done, -5}}, {{done, 0}}, {}},
                 {"done, after a disconnect failed", true, {{down, 0}}, {{done, 0}}, {}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        platform.reset();
        time.reset();
        const Subject client = c.connectedBefore ? connectedClient() : make(Role::Client);
        const auto deliver = [&client, this](const Events& events) {
            for (const auto& event : events) tell(client, event.first, event.second);
        };
        platform.onNextCall(Operation::Connect, [&](const Call&) { deliver(c.during); });
        time.onSleep([&] {
            if (time.slept != 1) return;
            const auto state = Access::state(*client);
            EXPECT_TRUE(state.connecting && !state.connected);
            deliver(c.afterwards);
        });
        client.journal->onLine("NIPC_CLIENT_INIT succeeded after 0 retries", [&] { deliver(c.afterwards); });
        platform.failNext(Operation::Disconnect, -9, c.connectedBefore ? 1 : 0);
        platform.failNext(Operation::Connect, -5, c.fails ? 1 : 0);
        deliver(c.before);
        EXPECT_TRUE(client->initialize());
        expectConnected(client, 2);
    }
}

TEST_F(ConnectionRace, ADisconnectThatFailsDuringAConnectBringsNoOldHandleBack) {
    const Subject client = connectedClient();
    platform.failNext(Operation::Disconnect, -9);
    Gate connecting, disconnecting;
    platform.onNextCall(Operation::Connect, [&](const Call&) {
        connecting.pass();
        tell(client, done);
    });
    platform.onNextCall(Operation::Disconnect, [&](const Call&) {
        EXPECT_TRUE(client->initialize());
        ASSERT_TRUE(connecting.awaitArrival());
    });
    EXPECT_FALSE(Access::deinitClient(*client));
    connecting.open();
    expectConnected(client, 2);
}

TEST_F(ConnectionRace, WhileTheHandleIsOnItsWayRequestsAreRefusedAndAcknowledgementsWait) {
    const Subject client = make(Role::Client);
    std::future<Delivered> share;
    platform.onNextCall(Operation::Connect, [&](const Call&) {
        tell(client, done);
        EXPECT_EQ(client->makeSyncRequest("", "name", "", 0).status, RequestStatus::Failure);
        EXPECT_EQ(client.journal->count("Connection in progress, request cannot be sent now"), 1U);
        EXPECT_EQ(
            client.journal->count("RequestWhileDisconnected RequestType=\"Sync\" ConnectionState=\"Reconnecting\""),
            1U);
        share = std::async(std::launch::async, [&] { return platform.deliverShare({0, "shared"}); });
        while (time.waits == 0 && share.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready) {
        }
    });
    EXPECT_TRUE(client->initialize());
    ASSERT_TRUE(platform.waitForCalls(Operation::RpcAsync, 1));
    share.get();
    EXPECT_EQ(platform.calls(Operation::RpcAsync).at(0).handle, platform.endpoint().handle);
    EXPECT_EQ(platform.calls(Operation::RpcAsync).at(0).functionId, CLIENT_FD_PROCESSING_COMPLETED_ID);
    expectConnected(client, 1);
}

TEST_F(ConnectionRace, ARequestThatReconnectsDuringADisconnectKeepsItsConnection) {
    const Subject client = connectedClient();
    platform.onNextCall(Operation::Disconnect, [&](const Call&) {
        EXPECT_EQ(client->makeSyncRequest("", "name", "", 0).status, RequestStatus::Failure);
        EXPECT_TRUE(client.journal->waitFor("Retry stopped for NIPC_CLIENT_INIT"));
    });
    EXPECT_TRUE(Access::deinitClient(*client));
    expectConnected(client, 2);
    EXPECT_EQ(client->makeSyncRequest("", "name", "", 0).status, RequestStatus::Success);
    EXPECT_EQ(platform.calls(Operation::RpcSync).back().handle, platform.endpoint().handle);
}

TEST_F(ConnectionRace, AServiceMayBeCalledBeforeItsStartHasReturned) {
    const Subject server = make(Role::Server);
    platform.onNextCall(Operation::Start, [&](const Call& start) {
        clientConnects(5);
        EXPECT_TRUE(server->publishEvent("changed"));
        EXPECT_EQ(platform.calls(Operation::Callback).at(0).handle, start.handle);
    });
    EXPECT_TRUE(server->initialize());
    EXPECT_EQ(platform.calls(Operation::Callback).size(), 1U);
}

TEST_F(ConnectionRace, AServiceThatIsInitializedTwiceWhileRetryingStartsOnce) {
    platform.failNext(Operation::Start, -98, 3);
    const Subject server = make(Role::Server);
    Gate gate;
    time.onSleep([&] {
        if (time.slept == 1) gate.pass();
    });
    EXPECT_TRUE(server->initialize());
    ASSERT_TRUE(gate.awaitArrival());
    EXPECT_TRUE(server->initialize());
    EXPECT_EQ(server.journal->count("Retry already in progress for NIPC_SERVER_INIT"), 1U);
    server.journal->clear();
    gate.open();
    ASSERT_TRUE(server.journal->waitFor("Retry stopped for NIPC_SERVER_INIT"));
    EXPECT_EQ(server.journal->lines().size(), 4U) << "success on retry and its metric, the attempts, the end";
}

}  // namespace
}  // namespace nipctest
