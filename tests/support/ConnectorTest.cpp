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
    const std::string name = "subject" + std::to_string(++made);
    auto journal = std::make_shared<Journal>(name);
    auto connector = NIPCConnector::getInstance(role == Role::Client, name, config, recordingLogger(journal),
                                                recordingRecorder(journal));
    journal->clear();
    return subjects.emplace_back(Subject{name, journal, connector});
}

Subject ConnectorTest::makeBare(Role role, const nipcconnector::NIPCServiceConfig& config) {
    auto journal = std::make_shared<Journal>("bare");
    auto connector = std::make_shared<NIPCConnector>(role == Role::Client, "bare", config, recordingLogger(journal),
                                                     recordingRecorder(journal));
    journal->clear();
    return subjects.emplace_back(Subject{"bare", journal, connector});
}

Subject ConnectorTest::up(Subject subject) {
    EXPECT_TRUE(subject->initialize());
    const bool isClient = subject.journal->count("Starting non-blocking connection to VLRS service") > 0;
    EXPECT_TRUE(!isClient || subject.journal->waitFor("Retry stopped for NIPC_CLIENT_INIT"));
    EXPECT_TRUE(Access::isConnected(*subject));
    subject.journal->clear();
    return subject;
}

void ConnectorTest::expectConnected(const Subject& subject, std::size_t connects) {
    EXPECT_TRUE(platform.waitForCalls(Operation::Connect, connects));
    EXPECT_TRUE(subject.journal->waitFor("Retry stopped for NIPC_CLIENT_INIT"));
    const auto calls = platform.calls(Operation::Connect);
    ASSERT_EQ(calls.size(), connects);
    EXPECT_EQ(Access::handle(*subject), calls.back().handle);
    EXPECT_TRUE(Access::isConnected(*subject));
    EXPECT_FALSE(Access::isConnecting(*subject));
    EXPECT_FALSE(Access::retryManager(*subject).isActive());
}

void ConnectorTest::clientConnects(std::uint16_t clientId) {
    clients.push_back(clientId);
    platform.deliverEvent(NEX_NIPC_EVENT_CLIENT_CONNECTED, clientId);
}

}  // namespace nipctest
