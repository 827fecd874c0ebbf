#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "ConnectorTestAccess.h"
#include "Faults.h"
#include "Gate.h"
#include "nex_nipc.h"
#include "nipcconnector/FunctionId.h"
#include "nipcconnector/testing/FakePlatform.h"
#include "nipcconnector/testing/FakeTime.h"
#include "nipcconnector/testing/Journal.h"

namespace nipctest {

using Access = nipcconnector::ConnectorTestAccess;
using nipcconnector::computeFunctionId;
using nipcconnector::NIPCConnector;
using smarthome::RequestStatus;
using namespace nipcconnector::testing;

enum class Role { Client, Server };

/// How death tests get their process: anew, or by forking where an emulator would have to start it.
#ifdef NIPC_TEST_EMULATOR
constexpr const char* kDeathTestStyle = "fast";
#else
constexpr const char* kDeathTestStyle = "threadsafe";
#endif

/// A connector under test and what it logged and measured.
struct Subject {
    std::shared_ptr<Journal> journal;
    std::shared_ptr<NIPCConnector> connector;

    NIPCConnector* operator->() const { return connector.get(); }
    NIPCConnector& operator*() const { return *connector; }

    /// Compares everything since the last call, format strings included.
    void expectJournal(const Lines& lines) const {
        EXPECT_EQ(journal->lines(), lines);
        journal->clear();
    }
};

/// Connectors on the scripted platform and clock. Each gets a name of its own, as the registry keeps them
/// to the end of the process.
class ConnectorTest : public ::testing::Test {
protected:
    ConnectorTest();
    ~ConnectorTest() override;

    /// As the factory makes it, not yet initialized.
    Subject make(Role role, const nipcconnector::NIPCServiceConfig& config = {"service", 7});
    /// Built without the factory: no callback manager.
    Subject makeBare(Role role);
    Subject connectedClient() { return up(make(Role::Client)); }
    Subject startedServer() { return up(make(Role::Server)); }
    /// Initializes it, waits until it is up and clears its journal.
    Subject up(Subject subject);
    /// The client's worker has ended and the client is connected with the newest handle.
    void expectConnected(const Subject& subject, std::size_t connects);
    void clientConnects(std::uint16_t clientId);
    /// An event that tells this client of its connection.
    void tell(const Subject& client, std::uint16_t eventId, std::int32_t status = 0);

    FakePlatform& platform = FakePlatform::instance();
    FakeTime& time = FakeTime::instance();

private:
    std::vector<Subject> subjects;
    std::vector<std::uint16_t> clients;
};

}  // namespace nipctest
