#include "ConnectorTest.h"

namespace nipctest {

ConnectorTest::ConnectorTest() {
    platform.reset();
    time.reset();
}

ConnectorTest::~ConnectorTest() {
    for (const auto clientId : clients) platform.deliverEvent(NEX_NIPC_EVENT_CLIENT_DISCONNECTED, clientId);
    for (const auto& subject : subjects) Access::retryManager(*subject).stopRetry();
}

Subject ConnectorTest::make(Role role, const nipcconnector::NIPCServiceConfig& config) {
    static int made = 0;
    auto journal = std::make_shared<Journal>("subject" + std::to_string(++made));
    auto connector = NIPCConnector::getInstance(role == Role::Client, journal->name, config, recordingLogger(journal),
                                                recordingRecorder(journal));
    journal->clear();
    return subjects.emplace_back(Subject{journal, connector});
}

Subject ConnectorTest::makeBare(Role role) {
    auto journal = std::make_shared<Journal>("bare");
    auto connector =
        std::make_shared<NIPCConnector>(role == Role::Client, "bare", nipcconnector::NIPCServiceConfig{"service", 7},
                                        recordingLogger(journal), recordingRecorder(journal));
    journal->clear();
    return subjects.emplace_back(Subject{journal, connector});
}

Subject ConnectorTest::up(Subject subject) {
    EXPECT_TRUE(subject->initialize());
    const bool isClient = subject.journal->count("Starting non-blocking connection to VLRS service") > 0;
    EXPECT_TRUE(!isClient || subject.journal->waitFor("Retry stopped for NIPC_CLIENT_INIT"));
    EXPECT_TRUE(Access::state(*subject).connected);
    subject.journal->clear();
    return subject;
}

void ConnectorTest::expectConnected(const Subject& subject, std::size_t connects) {
    EXPECT_TRUE(platform.waitForCalls(Operation::Connect, connects));
    EXPECT_TRUE(subject.journal->waitFor("Retry stopped for NIPC_CLIENT_INIT"));
    const auto calls = platform.calls(Operation::Connect);
    const Access::State state = Access::state(*subject);
    ASSERT_EQ(calls.size(), connects);
    EXPECT_EQ(state.handle, calls.back().handle);
    EXPECT_TRUE(state.connected);
    EXPECT_FALSE(state.connecting);
    EXPECT_FALSE(Access::retryManager(*subject).isActive());
}

void ConnectorTest::clientConnects(std::uint16_t clientId) {
    clients.push_back(clientId);
    platform.deliverEvent(NEX_NIPC_EVENT_CLIENT_CONNECTED, clientId);
}

void ConnectorTest::tell(const Subject& client, std::uint16_t eventId, std::int32_t status) {
    Message message{EVENT, 0, 0, eventId, {}, 0, status};
    message.listener = &Access::clientListener;
    message.userContext = client.connector.get();
    platform.deliver(message);
}

}  // namespace nipctest
