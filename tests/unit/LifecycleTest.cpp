#include <cstring>

#include "ConnectorTest.h"

namespace nipctest {
namespace {

using Lifecycle = ConnectorTest;

template <class Record>
std::string bytes(const Record& record) {
    return {reinterpret_cast<const char*>(&record), sizeof record};
}

const Line startingConnection = debug("Starting non-blocking connection to VLRS service");
const Line startingRetry = debug("Starting non-blocking retry for %s", "NIPC_CLIENT_INIT");
const Line connectSucceeded = info("nexNipc_connect succeeded");
const Line connected = info("Successfully connected to server");
const Line retrySucceeded = info("%s succeeded after %d retries", "NIPC_CLIENT_INIT", 0);
const Line retryStopped = debug("Retry stopped for %s", "NIPC_CLIENT_INIT");

Line initializing(const Subject& subject) { return debug("Initializing NIPCConnector for %s", subject.name.c_str()); }

TEST_F(Lifecycle, ClientConnectsInTheBackground) {
    const Subject client = make(Role::Client, {"", 7});  // The uuid alone is enough.
    EXPECT_TRUE(client->initialize());
    expectConnected(client, 1);
    client.expectJournal({initializing(client), startingConnection, startingRetry, connectSucceeded, connected,
                          retrySucceeded, retryStopped},
                         {});

    ClientConnectRecord record;
    std::memset(&record, 0, sizeof record);
    record.uuid = 7;
    record.listener = platform.listener();
    record.messageSize = 16384;
    record.option12 = 1;
    record.userContext = client.connector.get();
    EXPECT_EQ(platform.calls(Operation::Connect)[0].record, bytes(record));

    EXPECT_TRUE(client->initialize());
    client.expectJournal({initializing(client), debug("Already connected to VLRS service")}, {});
}

TEST_F(Lifecycle, ServerStartsAtOnce) {
    const Subject server = make(Role::Server, {"service", 65535});  // So is the name.
    EXPECT_TRUE(server->initialize());
    EXPECT_TRUE(server->initialize());
    server.expectJournal(
        {initializing(server), debug("Initializing IPC server.."), debug("Initializing IPC server..done"),
         initializing(server), warn("IpcServer already initialized")},
        {});

    ServerStartRecord record;
    std::memset(&record, 0, sizeof record);
    record.uuid = 65535;
    record.listener = platform.listener();
    record.messageSize = 16384;
    record.option16 = 10;
    record.option20 = 1;
    record.option32 = 1;
    record.userContext = server.connector.get();
    ASSERT_EQ(platform.calls(Operation::Start).size(), 1U);
    EXPECT_EQ(platform.calls(Operation::Start)[0].record, bytes(record));
    EXPECT_EQ(Access::handle(*server), platform.calls(Operation::Start)[0].handle);
}

TEST_F(Lifecycle, ServerThatCannotStartAtOnceRetries) {
    platform.failNext(Operation::Start, -98, 2);
    const Subject server = make(Role::Server);
    EXPECT_TRUE(server->initialize());
    ASSERT_TRUE(server.journal->waitFor("Retry stopped for NIPC_SERVER_INIT"));
    server.expectJournal(
        {initializing(server), debug("Initializing IPC server.."),
         warn("Initial NIPC server start failed (status: %d), starting async retry with 5-minute timeout", -98),
         debug("Starting non-blocking retry for %s", "NIPC_SERVER_INIT"),
         warn("%s failed on attempt %d, status: %d, retrying in %dms", "NIPC_SERVER_INIT", 1, -98, 100),
         info("NIPC server initialization succeeded on retry"),
         info("%s succeeded after %d retries", "NIPC_SERVER_INIT", 1),
         debug("Retry stopped for %s", "NIPC_SERVER_INIT")},
        {"ServerInitFailure", "ServerInitSucceededOnRetry"});
    const auto starts = platform.calls(Operation::Start);
    ASSERT_EQ(starts.size(), 3U);
    EXPECT_EQ(starts[2].record, starts[0].record);
    EXPECT_TRUE(Access::isConnected(*server));
}

TEST_F(Lifecycle, AnInvalidConfigurationShowsAtInitialize) {
    const Subject client = make(Role::Client, {"", 65535});
    EXPECT_FALSE(client->initialize());
    client.expectJournal(
        {initializing(client), startingConnection, error("Service config is invalid for client NIPCConnector")}, {});
    const Subject server = make(Role::Server, {"", 65535});
    EXPECT_FALSE(server->initialize());
    server.expectJournal({initializing(server), debug("Initializing IPC server.."),
                          error("Service config is invalid for server NIPCConnector")},
                         {});
    EXPECT_TRUE(platform.calls(Operation::Connect).empty() && platform.calls(Operation::Start).empty());
}

TEST_F(Lifecycle, AFailedConnectionIsMeasuredAndTriedAgain) {
    const Subject client = connectedClient();
    const auto fail = [&] {
        platform.deliverEvent(NEX_NIPC_EVENT_CONNECTION_DONE, 0, -5);
        ASSERT_TRUE(client.journal->waitFor("Retry stopped for NIPC_CLIENT_INIT"));
    };
    fail();
    expectConnected(client, 2);
    client.expectJournal(
        {info("NEX_NIPC_EVENT_CONNECTION_DONE with status: %d", -5), error("Failed to connect to server"),
         startingConnection, startingRetry, connectSucceeded, connected, retrySucceeded, retryStopped},
        {"ConnectionFailure ConnectionType=\"InitialConnection\" DisconnectionCount=0"});
    platform.deliverEvent(NEX_NIPC_EVENT_SERVER_DOWN);
    ASSERT_TRUE(client.journal->waitFor("Retry stopped for NIPC_CLIENT_INIT"));
    client.journal->clear();
    fail();
    EXPECT_EQ(client.journal->metrics(),
              std::vector<std::string>{"ConnectionFailure ConnectionType=\"Reconnection\" DisconnectionCount=1"});
}

TEST_F(Lifecycle, ALostServiceIsMeasuredAndReconnected) {
    const Subject client = connectedClient();
    const auto first = Access::handle(*client);
    time.clock += 2'999'999;
    platform.deliverEvent(NEX_NIPC_EVENT_SERVER_DOWN);
    expectConnected(client, 2);
    client.expectJournal({error("NEX_NIPC_EVENT_SERVER_DOWN"), debug("Handling server disconnection"),
                          debug("deinitClient"), debug("Disconnected from VLRS service"), startingConnection,
                          startingRetry, connectSucceeded, connected, retrySucceeded, retryStopped},
                         {"ServerDisconnection DisconnectionCount=1 ConnectionDurationMs=2"});
    ASSERT_EQ(platform.calls(Operation::Disconnect).size(), 1U);
    EXPECT_EQ(platform.calls(Operation::Disconnect)[0].handle, first);

    platform.failNext(Operation::Disconnect, -9);
    EXPECT_FALSE(Access::deinitClient(*client));
    client.expectJournal({debug("deinitClient"), error("Failed to disconnect, status: %d", -9)}, {});
    EXPECT_NE(Access::handle(*client), -1);
    EXPECT_TRUE(Access::deinitClient(*client)) << "no longer connected: only the handle is forgotten";
    EXPECT_EQ(Access::handle(*client), -1);
    EXPECT_EQ(platform.calls(Operation::Disconnect).size(), 2U);
}

TEST_F(Lifecycle, ALossWhileConnectingChangesNothing) {
    const Subject client = make(Role::Client, {"", 65535});
    client->initialize();                     // Never gets beyond connecting.
    const Subject other = connectedClient();  // Its listener is everybody's.
    Message down;
    down.type = EVENT;
    down.eventId = NEX_NIPC_EVENT_SERVER_DOWN;
    down.userContext = client.connector.get();
    client.journal->clear();
    platform.deliver(down);
    client.expectJournal({error("NEX_NIPC_EVENT_SERVER_DOWN")}, {});

    down.eventId = NEX_NIPC_EVENT_CONNECTION_DONE;
    down.status = -5;
    platform.deliver(down);
    client.expectJournal(
        {info("NEX_NIPC_EVENT_CONNECTION_DONE with status: %d", -5), error("Failed to connect to server"),
         startingConnection, error("Service config is invalid for client NIPCConnector"),
         error("Failed to initiate reconnection")},
        {"ConnectionFailure ConnectionType=\"InitialConnection\" DisconnectionCount=0"});
}

TEST_F(Lifecycle, TheDestructorStopsAndDisconnectsAClientAndLeavesAServiceAlone) {
    for (const Role role : {Role::Client, Role::Server}) {
        auto journal = std::make_shared<Journal>("bare");
        auto connector = std::make_unique<NIPCConnector>(role == Role::Client, "bare",
                                                         nipcconnector::NIPCServiceConfig{"service", 7},
                                                         recordingLogger(journal), recordingRecorder(journal));
        const Subject subject{"bare", journal, {}};
        subject.expectJournal(
            {debug("NIPCConnector constructor for %s", "bare"),
             debug("NIPCConnector constructor for %s, server name: %s, uuid: %u", "bare", "service", 7U)},
            {});
        connector->initialize();
        EXPECT_TRUE(role == Role::Server || journal->waitFor("Retry stopped for NIPC_CLIENT_INIT"));
        journal->clear();
        connector.reset();
        std::vector<Line> lines = {debug("NIPCConnector destructor")};
        if (role == Role::Client) {
            lines.push_back(debug("deinitClient"));
            lines.push_back(debug("Disconnected from VLRS service"));
        }
        subject.expectJournal(lines, {});
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
    NIPCConnector::getInstance(true, "x", {"other", 8}, recordingLogger(journal), recordingRecorder(journal));
    EXPECT_EQ(journal.use_count(), 1) << "the second logger and recorder are destroyed";
    EXPECT_TRUE(journal->lines().empty());

    failNothrowNew(1);
    EXPECT_EQ(NIPCConnector::getInstance(true, "y", {}, recordingLogger(journal), nullptr), nullptr);
    EXPECT_EQ(journal.use_count(), 1);
    EXPECT_TRUE(journal->lines().empty());
}

}  // namespace
}  // namespace nipctest
