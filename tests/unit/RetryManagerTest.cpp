#include <cstdlib>
#include <new>
#include <thread>

#include "ConnectorTest.h"

namespace nipctest {
namespace {

class RetryManager : public ConnectorTest {
protected:
    /// Fails `failures` times, then succeeds.
    bool retry(int failures, const std::string& name) {
        remaining = failures;
        return Access::retryManager(*subject).startRetry([this] { return remaining-- > 0 ? -111 : 0; }, name);
    }
    static Line failed(int attempt, int delay) {
        return warn("%s failed on attempt %d, status: %d, retrying in %dms", "OPERATION", attempt, -111, delay);
    }

    Subject subject = make(Role::Client);
    std::atomic<int> remaining{0};
};

TEST_F(RetryManager, WaitsDoubleUpToFiveSecondsGiveOrTakeATenth) {
    const struct {
        unsigned int jitter;
        std::vector<int> delays;
        int slices;
    } cases[] = {{0, {100, 180, 324, 584, 1052, 1894, 3410, 4500, 4500}, 168},
                 {1, {100, 200, 400, 800, 1600, 3200, 5000, 5000}, 163},
                 {2, {100, 220, 484, 1064, 2340, 5148, 5500}, 151}};
    for (const auto& c : cases) {
        time.reset();
        time.jitter = c.jitter;
        EXPECT_TRUE(retry(static_cast<int>(c.delays.size()), "OPERATION"));
        ASSERT_TRUE(subject.journal->waitFor("Retry stopped for OPERATION"));
        Lines lines = {debug("Starting non-blocking retry for %s", "OPERATION")};
        for (const int delay : c.delays) lines.push_back(failed(static_cast<int>(lines.size()), delay));
        lines.push_back(info("%s succeeded after %d retries", "OPERATION", static_cast<int>(c.delays.size())));
        lines.push_back(debug("Retry stopped for %s", "OPERATION"));
        subject.expectJournal(lines);
        EXPECT_EQ(time.slept, c.slices);
        EXPECT_FALSE(Access::retryManager(*subject).isActive());
    }
}

TEST_F(RetryManager, TwentyMinutesOfFailureAreReportedOnceAndSoIsTheLaterSuccess) {
    EXPECT_TRUE(retry(300, "OPERATION"));
    ASSERT_TRUE(subject.journal->waitFor("Retry stopped for OPERATION"));
    const auto lines = subject.journal->lines();
    ASSERT_EQ(lines.size(), 306U);
    EXPECT_EQ(Lines(lines.begin() + 246, lines.begin() + 250),
              (Lines{failed(246, 5000),
                     metric("ConnectionInitiationFailure OperationName=\"OPERATION\" RetryAttempts=246 "
                            "TotalDurationMs=1201300"),
                     error("%s has been failing for %ldms with %d attempts - this is a persistent failure", "OPERATION",
                           1201300L, 246),
                     failed(247, 5000)}));
    EXPECT_EQ(lines[304], metric("ConnectionInitiationEventualSuccess OperationName=\"OPERATION\" RetryAttempts=300"));
}

TEST_F(RetryManager, OneOperationAtATimeAndAStopEndsItWithinASlice) {
    Gate gate;
    time.onSleep([&] {
        if (time.slept == 100) gate.pass();
    });
    EXPECT_TRUE(retry(1'000'000, "FIRST"));
    ASSERT_TRUE(gate.awaitArrival());
    EXPECT_TRUE(Access::retryManager(*subject).startRetry([] { return 0; }, "SECOND"));
    EXPECT_EQ(subject.journal->lines().back(), warn("Retry already in progress for %s", "SECOND"));

    subject.journal->clear();
    subject.journal->onLine("Stopping retry timer thread", [&] { gate.open(); });
    Access::retryManager(*subject).stopRetry();
    ASSERT_TRUE(subject.journal->waitFor("Retry stopped for FIRST"));
    EXPECT_EQ(subject.journal->count("Retry thread finished successfully"), 1U);
    EXPECT_EQ(subject.journal->lines().size(), 3U);
    EXPECT_LE(time.slept, 101);
    subject.journal->clear();

    Access::retryManager(*subject).stopRetry();
    subject.expectJournal({});
}

TEST_F(RetryManager, AStopDoesNotWaitForeverForAnOperationThatHangs) {
    Gate gate;
    Access::retryManager(*subject).startRetry([&] { return gate.pass(), -1; }, "HANGING");
    ASSERT_TRUE(gate.awaitArrival());
    subject.journal->clear();
    time.waitsExpireAtOnce = true;
    Access::retryManager(*subject).stopRetry();
    subject.expectJournal({debug("Stopping retry timer thread"), warn("Retry thread didn't finish within timeout")});

    EXPECT_TRUE(retry(0, "NEXT"));
    EXPECT_TRUE(subject.journal->waitFor("Retry stopped for NEXT"));
    gate.open();
    EXPECT_TRUE(subject.journal->waitFor("HANGING failed on attempt 1, status: -1, retrying in 100ms"));
    EXPECT_TRUE(subject.journal->waitFor("Retry stopped for HANGING"));
}

TEST_F(RetryManager, AThreadThatCannotBeHadLosesNoOtherStart) {
    auto shortage = std::make_unique<ThreadShortage>();
    EXPECT_FALSE(retry(0, "OPERATION"));
    EXPECT_FALSE(Access::retryManager(*subject).isActive());
    EXPECT_EQ(subject.journal->lines().back().level, 'E');
    subject.journal->onLine("Failed to start the retry thread for %s: %s", [&] {
        shortage.reset();
        EXPECT_TRUE(retry(0, "REFUSED")) << "since another is being started";
    });
    EXPECT_TRUE(retry(0, "OPERATION"));
    EXPECT_TRUE(subject.journal->waitFor("Retry stopped for REFUSED"));
}

TEST_F(RetryManager, WantOfMemoryEndsNeitherTheWorkerNorTheProcess) {
    for (int allocation = 1; allocation < 40; ++allocation) {
        SCOPED_TRACE(allocation);
        remaining = 2;
        const auto operation = [this, allocation] {
            failNew(allocation);
            if (--remaining == 0) throw std::bad_alloc();
            return remaining > 0 ? -111 : 0;
        };
        EXPECT_TRUE(Access::retryManager(*subject).startRetry(operation, "an operation with a name that is long"));
        while (Access::retryManager(*subject).isActive()) std::this_thread::yield();
        EXPECT_LT(remaining, 0);
    }
}

/// In a child process, whose end prints the last that was logged and measured.
class FiveMinutes : public ConnectorTest {
protected:
    FiveMinutes() { GTEST_FLAG_SET(death_test_style, kDeathTestStyle); }

    void failToStart(int servers) {
        static std::vector<std::shared_ptr<Journal>> journals;
        static std::atomic<int> abortsToCome{servers};
        platform.failNext(Operation::Start, -98, 1000);
        make(Role::Client);  // So that the registry's end comes after what follows.
        std::atexit([] {
            const Lines lines = journals[0]->lines();
            for (auto line = lines.end() - 2; line != lines.end(); ++line) {
                std::fprintf(stderr, "%c %s;", line->level, line->text.c_str());
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));  // For another exit() to overtake this one.
            const auto early = NIPCConnector::getInstance(true, "early", {"service", 7}, nullptr, nullptr);
            std::fputs(early ? "the end" : "overtaken", stderr);
        });
        for (int i = 0; i < servers; ++i) {
            const Subject server = make(Role::Server);
            journals.push_back(server.journal);
            server.journal->onLine("%s has been failing for %ldms with %d attempts - aborting process", [] {
                for (--abortsToCome; abortsToCome > 0;) std::this_thread::yield();
            });
            server->initialize();
        }
        journals[0]->waitFor("this line never comes");
    }
};

TEST_F(FiveMinutes, OfFailureToStartAServerEndTheProcess) {
    EXPECT_EXIT(failToStart(1), ::testing::ExitedWithCode(1),
                "^E NIPC_SERVER_INIT has been failing for 301300ms with 66 attempts - aborting process;"
                "M ServerInitFatalFailure OperationName=\"NIPC_SERVER_INIT\" RetryAttempts=66 "
                "TotalDurationMs=301300;the end$");
}

TEST_F(FiveMinutes, OfTwoServersEndItOnce) { EXPECT_EXIT(failToStart(2), ::testing::ExitedWithCode(1), "the end$"); }

}  // namespace
}  // namespace nipctest
