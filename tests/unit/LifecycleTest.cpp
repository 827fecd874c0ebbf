#include <cstring>

#include "ConnectorTest.h"
#include "connector/Registry.h"

namespace nipctest {
namespace {

using Lifecycle = ConnectorTest;

template <class Record>
std::string bytes(const Record& record) {
    return {reinterpret_cast<const char*>(&record), sizeof record};
}

const Line startingConnection = debug("Starting non-blocking connection to VLRS service");
const Line startingRetry = debug("Starting non-blocking retry for %s", "NIPC_CLIENT_INIT");
const Line retryStopped = debug("Retry stopped for %s", "NIPC_CLIENT_INIT");
const Line down = error("NEX_NIPC_EVENT_SERVER_DOWN");
const Line deinit = debug("deinitClient");
const Line disconnected = debug("Disconnected from VLRS service");
const Line notInitiated = error("Failed to initiate reconnection");

Line initializing(const Subject& subject) {
    return debug("Initializing NIPCConnector for %s", subject.journal->name.c_str());
}

/// The lines, and then those of a connect that succeeds at the first attempt or the second.
Lines andConnects(Lines lines, int failures = 0) {
    lines.insert(lines.end(), {startingConnection, startingRetry});
    if (failures > 0) {
        lines.push_back(
            warn("%s failed on attempt %d, status: %d, retrying in %dms", "NIPC_CLIENT_INIT", failures, -5, 100));
    }
    lines.insert(lines.end(), {info("nexNipc_connect succeeded"), info("Successfully connected to server"),
                               info("%s succeeded after %d retries", "NIPC_CLIENT_INIT", failures), retryStopped});
    return lines;
}

TEST_F(Lifecycle, ClientConnectsInTheBackground) {
    const Subject client = make(Role::Client, {"", 7});  // The uuid alone is enough.
    EXPECT_TRUE(client->initialize());
    expectConnected(client, 1);
    client.expectJournal(andConnects({initializing(client)}));
    ClientConnectRecord record;
    std::memset(&record, 0, sizeof record);
    record.uuid = 7;
    record.listener = platform.endpoint().listener;
    record.messageSize = 16384;
    record.option12 = 1;
    record.userContext = client.connector.get();
    EXPECT_EQ(platform.calls(Operation::Connect)[0].record, bytes(record));

    EXPECT_TRUE(client->initialize());
    client.expectJournal({initializing(client), debug("Already connected to VLRS service")});
}

TEST_F(Lifecycle, ServerStartsAtOnceOrRetries) {
    const Subject server = make(Role::Server, {"service", 65535});  // So is the name.
    const Line starting = debug("Initializing IPC server..");
    EXPECT_TRUE(server->initialize() && server->initialize());
    server.expectJournal({initializing(server), starting, debug("Initializing IPC server..done"), initializing(server),
                          warn("IpcServer already initialized")});
    ServerStartRecord record;
    std::memset(&record, 0, sizeof record);
    record.uuid = 65535;
    record.listener = platform.endpoint().listener;
    record.messageSize = 16384;
    record.option16 = 10;
    record.option20 = record.option32 = 1;
    record.userContext = server.connector.get();
    ASSERT_EQ(platform.calls(Operation::Start).size(), 1U);
    EXPECT_EQ(platform.calls(Operation::Start)[0].record, bytes(record));
    EXPECT_EQ(Access::state(*server).handle, platform.endpoint().handle);

    platform.reset();
    platform.failNext(Operation::Start, -98, 2);
    const Subject late = make(Role::Server);
    EXPECT_TRUE(late->initialize());
    ASSERT_TRUE(late.journal->waitFor("Retry stopped for NIPC_SERVER_INIT"));
    late.expectJournal(
        {initializing(late), starting,
         warn("Initial NIPC server start failed (status: %d), starting async retry with 5-minute timeout", -98),
         metric("ServerInitFailure"), debug("Starting non-blocking retry for %s", "NIPC_SERVER_INIT"),
         warn("%s failed on attempt %d, status: %d, retrying in %dms", "NIPC_SERVER_INIT", 1, -98, 100),
         info("NIPC server initialization succeeded on retry"), metric("ServerInitSucceededOnRetry"),
         info("%s succeeded after %d retries", "NIPC_SERVER_INIT", 1),
         debug("Retry stopped for %s", "NIPC_SERVER_INIT")});
    const auto starts = platform.calls(Operation::Start);
    ASSERT_EQ(starts.size(), 3U);
    EXPECT_EQ(starts[2].record, starts[0].record);
    EXPECT_TRUE(Access::state(*late).connected);
}

TEST_F(Lifecycle, AnInvalidConfigurationShowsAtInitialize) {
    const Line invalid = error("Service config is invalid for client NIPCConnector");
    const Subject client = make(Role::Client, {"", 65535});
    EXPECT_FALSE(client->initialize());
    client.expectJournal({initializing(client), startingConnection, invalid});
    const Subject server = make(Role::Server, {"", 65535});
    EXPECT_FALSE(server->initialize());
    server.expectJournal({initializing(server), debug("Initializing IPC server.."),
                          error("Service config is invalid for server NIPCConnector")});

    tell(client, NEX_NIPC_EVENT_SERVER_DOWN);  // Changes nothing while connecting, which this client stays.
    client.expectJournal({down});
    tell(client, NEX_NIPC_EVENT_CONNECTION_DONE, -5);
    client.expectJournal({info("NEX_NIPC_EVENT_CONNECTION_DONE with status: %d", -5),
                          error("Failed to connect to server"),
                          metric("ConnectionFailure ConnectionType=\"InitialConnection\" DisconnectionCount=0"),
                          startingConnection, invalid, notInitiated});
    EXPECT_TRUE(platform.calls(Operation::Connect).empty() && platform.calls(Operation::Start).empty());
}

TEST_F(Lifecycle, FailuresAndLossesAreMeasuredAndReconnected) {
    const Subject client = make(Role::Client);
    std::size_t connects = 0;
    const auto lose = [&](int count, int duration, int failures) {
        platform.failNext(Operation::Connect, -5, static_cast<std::size_t>(failures));
        tell(client, NEX_NIPC_EVENT_SERVER_DOWN);
        connects += static_cast<std::size_t>(failures);
        expectConnected(client, ++connects);
        client.expectJournal(andConnects({down, debug("Handling server disconnection"),
                                          metric("ServerDisconnection DisconnectionCount=" + std::to_string(count) +
                                                 " ConnectionDurationMs=" + std::to_string(duration)),
                                          deinit, disconnected},
                                         failures));
    };
    lose(1, 0, 0);  // It never was connected.
    time.clock += 2'999'999;
    const auto first = Access::state(*client).handle;
    lose(2, 2, 1);
    ASSERT_EQ(platform.calls(Operation::Disconnect).size(), 1U);
    EXPECT_EQ(platform.calls(Operation::Disconnect)[0].handle, first);
    tell(client, NEX_NIPC_EVENT_CONNECTION_DONE, -5);
    expectConnected(client, ++connects);
    client.expectJournal(
        andConnects({info("NEX_NIPC_EVENT_CONNECTION_DONE with status: %d", -5), error("Failed to connect to server"),
                     metric("ConnectionFailure ConnectionType=\"Reconnection\" DisconnectionCount=2")}));

    platform.failNext(Operation::Disconnect, -9);
    EXPECT_FALSE(Access::deinitClient(*client));
    client.expectJournal({deinit, error("Failed to disconnect, status: %d", -9)});
    EXPECT_NE(Access::state(*client).handle, -1);
    EXPECT_TRUE(Access::deinitClient(*client)) << "no longer connected: only the handle is forgotten";
    EXPECT_EQ(Access::state(*client).handle, -1);
    EXPECT_EQ(platform.calls(Operation::Disconnect).size(), 2U);

    const Subject other = connectedClient();
    tell(other, NEX_NIPC_EVENT_CONNECTION_DONE, -5);
    EXPECT_EQ(other.journal->count("ConnectionFailure ConnectionType=\"InitialConnection\" DisconnectionCount=0"), 1U);
}

TEST_F(Lifecycle, WantOfAThreadOrOfMemoryDoesNotEndReconnecting) {
    const struct {
        const char* line;  // After which the next allocation fails, or no thread can be had when it is empty.
        std::uint16_t event;
        bool reconnects;
    } cases[] = {{"Handling server disconnection", NEX_NIPC_EVENT_SERVER_DOWN, true},
                 {"Failed to connect to server", NEX_NIPC_EVENT_CONNECTION_DONE, true},
                 {startingConnection.format.c_str(), NEX_NIPC_EVENT_SERVER_DOWN, false},
                 {"", NEX_NIPC_EVENT_SERVER_DOWN, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        platform.reset();
        const Subject client = connectedClient();
        std::unique_ptr<ThreadShortage> shortage(*c.line == '\0' ? new ThreadShortage : nullptr);
        client.journal->onLine(c.line, [] { failNew(1); });
        platform.deliverEvent(c.event, 0, -5);
        EXPECT_FALSE(failNew(0));
        shortage.reset();
        EXPECT_EQ(client.journal->count(notInitiated.text), c.reconnects ? 0U : 1U);
        EXPECT_EQ(Access::state(*client).connected || Access::state(*client).connecting, c.reconnects);
        if (!c.reconnects) client->makeSyncRequest("", "name", "", 0);
        expectConnected(client, 2);
    }
}

TEST_F(Lifecycle, TheDestructorStopsAndDisconnectsAClientAndLeavesAServiceAlone) {
    for (const Role role : {Role::Client, Role::Server}) {
        auto journal = std::make_shared<Journal>("bare");
        auto connector = std::make_unique<NIPCConnector>(role == Role::Client, "bare",
                                                         nipcconnector::NIPCServiceConfig{"service", 7},
                                                         recordingLogger(journal), recordingRecorder(journal));
        const Subject subject{journal, {}};
        subject.expectJournal(
            {debug("NIPCConnector constructor for %s", "bare"),
             debug("NIPCConnector constructor for %s, server name: %s, uuid: %u", "bare", "service", 7U)});
        connector->initialize();
        EXPECT_TRUE(role == Role::Server || journal->waitFor(retryStopped.text));
        journal->clear();
        connector.reset();
        Lines lines = {debug("NIPCConnector destructor")};
        if (role == Role::Client) lines.insert(lines.end(), {deinit, disconnected});
        subject.expectJournal(lines);
        EXPECT_EQ(platform.calls(Operation::Disconnect).size(), 1U);
        EXPECT_EQ(platform.deliverEvent(NEX_NIPC_EVENT_SERVER_DOWN).result, -1) << "nobody lives there any more";
    }
}

TEST_F(Lifecycle, TheRegistryKeepsOneConnectorPerRoleAndName) {
    const auto get = [](bool isClient, const std::string& name) {
        return NIPCConnector::getInstance(isClient, name, {"service", 7}, nullptr, nullptr);
    };
    const auto* const first = get(true, "x").get();
    EXPECT_EQ(get(true, "x").get(), first) << "alive though nobody held it";
    EXPECT_NE(static_cast<const void*>(get(false, "x").get()), first);

    auto journal = std::make_shared<Journal>("x");
    const auto getJournaling = [&](const char* name) {
        return NIPCConnector::getInstance(true, name, {"other", 8}, recordingLogger(journal),
                                          recordingRecorder(journal));
    };
    getJournaling("x");
    EXPECT_EQ(journal.use_count(), 1) << "the second logger and recorder are destroyed";
    failNothrowNew(1);
    EXPECT_EQ(getJournaling("y"), nullptr);
    EXPECT_EQ(journal.use_count(), 1);
    EXPECT_TRUE(journal->lines().empty());
}

TEST_F(Lifecycle, AConnectorThatMemoryDoesNotSufficeForIsNotRegistered) {
    const nipcconnector::Registry& registry = nipcconnector::registry();
    const std::size_t instances = registry.instances.size();
    const std::size_t managers = registry.callbackManagers.size();
    // Twice, since a table that grows in the first round shields an allocation from its failure.
    for (std::size_t round = 1; round <= 2; ++round) {
        int failures = 0;
        for (bool failed = true; failed; ++failures) {
            std::string name(39 + round, 'n');
            failNew(failures + 1);
            const auto connector = NIPCConnector::getInstance(true, name, {}, nullptr, nullptr);
            failed = !failNew(0);
            EXPECT_EQ(connector == nullptr, failed);
            EXPECT_EQ(registry.instances.size(), instances + round - (failed ? 1 : 0));
            EXPECT_EQ(registry.callbackManagers.size(), managers + round - (failed ? 1 : 0));
        }
        EXPECT_GT(failures, 5) << "the key, the owner, the manager and their places can each fail";
    }
}

}  // namespace
}  // namespace nipctest
