// The connector between real processes: the servers run in processes of their own, the clients here.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <list>
#include <set>
#include <thread>

#include "TestServer.h"

using namespace nipctest;
using namespace std::chrono_literals;
using smarthome::RequestStatus;

namespace {

/// Answers ("+..." or "-...") and events in the order they came.
class Inbox {
public:
    void add(const char* sign, const char* data, unsigned int length) {
        const std::lock_guard<std::mutex> lock(mutex_);
        texts_.push_back(sign + (length == 0 ? "" : std::string(data, length)));
        arrived_.notify_all();
    }
    std::string next() {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!arrived_.wait_for(lock, kPatience, [this] { return !texts_.empty(); })) return "nothing came";
        std::string text = std::move(texts_.front());
        texts_.pop_front();
        return text;
    }

private:
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::deque<std::string> texts_;
};

smarthome::AsyncResponseCallback answersTo(std::shared_ptr<Inbox> inbox) {
    return [inbox](bool success, auto data, auto length) { inbox->add(success ? "+" : "-", data, length); };
}
smarthome::EventHandler eventsTo(std::shared_ptr<Inbox> inbox) {
    return [inbox](auto data, auto length) { inbox->add("", data, length); };
}

}  // namespace

class ConnectorTest : public testing::Test {
protected:
    // One directory for all, since the connectors of one test still look around when the next begins.
    static void SetUpTestSuite() { static const ServiceDirectory directory; }

    void SetUp() override {
        ASSERT_EQ(process.hear(), "up");
        self = connected(uuid);
    }

    static std::shared_ptr<Connector> connected(std::uint16_t number) {
        static int count = 0;
        auto client =
            Connector::getInstance(true, "client" + std::to_string(++count), {"server", number}, nullptr, nullptr);
        EXPECT_TRUE(client->initialize());
        EXPECT_TRUE(isServed(*client));
        return client;
    }

    // Asks until it is answered: nothing tells for certain that the next request will be.
    static bool isServed(Connector& connector) {
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        while (call(connector, "echo", "x") != "x") {
            if (std::chrono::steady_clock::now() > deadline) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return true;
    }

    RequestStatus request(const std::string& name, const std::string& payload) const {
        return self->makeAsyncRequest("", name, payload.data(), static_cast<unsigned int>(payload.size()),
                                      answersTo(inbox));
    }
    static std::string call(Connector& connector, const std::string& name, const std::string& payload) {
        const auto result =
            connector.makeSyncRequest("", name, payload.data(), static_cast<unsigned int>(payload.size()));
        if (result.status != RequestStatus::Success) return "failed";
        return {result.response.begin(), result.response.end()};
    }
    std::string call(const std::string& name, const std::string& payload) const { return call(*self, name, payload); }

    static inline std::uint16_t nextUuid = 42201;  // Connectors outlive their tests.
    const std::uint16_t uuid = nextUuid++;
    Process process{{"server", std::to_string(uuid)}};
    std::shared_ptr<Connector> self;
    const std::shared_ptr<Inbox> inbox = std::make_shared<Inbox>();
};

TEST_F(ConnectorTest, PayloadsArriveWholeInBothDirectionsUpToFiveMiB) {
    ASSERT_TRUE(self->subscribeForEvent("", "news", eventsTo(inbox)));
    for (const std::size_t size : {std::size_t{1}, std::size_t{16383}, std::size_t{16384}, std::size_t{16385},
                                   std::size_t{5242880}, std::size_t{5242881}}) {
        SCOPED_TRACE(size);
        const std::string payload = pattern(size);
        const bool fits = size <= 5242880;
        EXPECT_EQ(request("digest", payload), fits ? RequestStatus::Success : RequestStatus::Failure);
        if (fits) {
            EXPECT_EQ(inbox->next(), "+" + digest(payload.data(), size));
        }
        EXPECT_EQ(request("make", std::to_string(size)), RequestStatus::Success);
        EXPECT_EQ(request("publish", std::to_string(size)), RequestStatus::Success);
        if (fits) {
            EXPECT_TRUE(inbox->next() == "+" + payload);
            EXPECT_TRUE(inbox->next() == payload);
        }
    }
    EXPECT_EQ(request("publish", ""), RequestStatus::Success);
    EXPECT_EQ(inbox->next(), "");  // Nothing of the too large ones came in between.
}

TEST_F(ConnectorTest, ASynchronousRequestMayBeLongAndItsAnswerHoldsOnePacket) {
    const std::string large = pattern(1U << 20U);
    EXPECT_EQ(call("digest", large), digest(large.data(), large.size()));
    EXPECT_EQ(call("make", "16384"), pattern(16384));
    EXPECT_EQ(call("make", "16385"), "failed");
    EXPECT_EQ(call("make", "0"), "failed");
    EXPECT_EQ(call("nobody's", "x"), "failed");
    EXPECT_EQ(call("echo", std::string("a\0b\0", 4)), std::string("a\0b\0", 4));
    for (const unsigned int length : {0U, 10U, 20000U}) {  // A null payload is empty, or refused.
        const auto expected = length == 0 ? RequestStatus::Success : RequestStatus::Failure;
        EXPECT_EQ(self->makeSyncRequest("", "digest", nullptr, length).status, expected);
        EXPECT_EQ(self->makeAsyncRequest("", "digest", nullptr, length, answersTo(inbox)), expected);
    }
    EXPECT_EQ(inbox->next(), "+" + digest("", 0));
}

TEST_F(ConnectorTest, ConcurrentRequestsOfTwoClientsAreToldApart) {
    constexpr std::size_t kEach = 100;
    const auto other = connected(uuid);
    const auto otherInbox = std::make_shared<Inbox>();
    const auto ask = [](Connector& connector, const std::shared_ptr<Inbox>& to) {
        for (std::size_t i = 0; i < kEach; ++i) {
            connector.makeAsyncRequest("", "identify", "", 0, answersTo(to));
            EXPECT_EQ(call(connector, "echo", std::to_string(i)), std::to_string(i));
        }
    };
    std::thread second([&] { ask(*other, otherInbox); });
    ask(*self, inbox);
    second.join();
    std::set<std::string> ids;
    for (std::size_t i = 0; i < kEach; ++i) ids.insert({inbox->next(), otherInbox->next()});
    EXPECT_EQ(ids.size(), 2 * kEach);
    EXPECT_EQ(ids.count("nothing came"), 0U);
}

TEST_F(ConnectorTest, ACallbackMayMakeRequests) {
    const std::string large = pattern(100000);
    self->makeAsyncRequest("", "digest", "x", 1, [this, large](bool, auto, auto) {
        const std::string answer = call("echo", "from inside");
        inbox->add("", answer.data(), static_cast<unsigned int>(answer.size()));
        request("digest", large);
    });
    EXPECT_EQ(inbox->next(), "from inside");
    EXPECT_EQ(inbox->next(), "+" + digest(large.data(), large.size()));
}

TEST_F(ConnectorTest, AServerThatIsKilledAmidRequestsAndStartsAgainServesAsBefore) {
    ASSERT_TRUE(self->subscribeForEvent("", "news", eventsTo(inbox)));
    std::atomic<bool> ended{false};
    std::thread asking([&] {
        const std::string large = pattern(40000);
        for (unsigned i = 0; !ended; ++i, std::this_thread::sleep_for(1ms)) {
            const unsigned int length = i % 16 == 0 ? 40000 : 1;  // A large one that loses its server takes 3 s.
            self->makeAsyncRequest("", "digest", large.data(), length, [](bool, auto, auto) {});
        }
    });
    std::list<Process> later;
    for (const auto away : {0ms, 200ms, 1050ms, 3000ms}) {
        SCOPED_TRACE(away.count());
        (later.empty() ? process : later.back()).kill();
        std::this_thread::sleep_for(away);
        later.emplace_back(std::vector<std::string>{"server", std::to_string(uuid)});
        ASSERT_EQ(later.back().hear(), "up");
        EXPECT_TRUE(isServed(*self));
        EXPECT_EQ(request("publish", "7"), RequestStatus::Success);
        EXPECT_EQ(inbox->next(), pattern(7));
    }
    ended = true;
    asking.join();
}

int main(int argc, char** argv) {
    const int status = runRole(argc, argv, {{"server", runServer}});
    if (status >= 0) return status;
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
