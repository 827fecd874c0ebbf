#include "ConnectorTest.h"

namespace nipctest {
namespace {

/// Every operation inside every kind of handler and callback, on the connector that calls it.
using CallsFromInside = ConnectorTest;

using Code = std::function<void()>;

/// One kind of user code: how it is stored and removed, and what calls it.
const struct Kind {
    const char* name;
    Role role;
    void (*store)(NIPCConnector&, const Code&);
    void (*remove)(NIPCConnector&);  // Nothing where it runs once at most.
    Message message;
} kinds[] = {
    {"sync request handler",
     Role::Server,
     [](NIPCConnector& c, const Code& code) {
         c.registerSyncRequestHandler("get", [code](auto, auto) { return code(), std::vector<char>(1); });
     },
     [](NIPCConnector& c) { c.unregisterSyncRequestHandler("get"); },
     {SYNC_FUNCTION, 5, computeFunctionId("get"), 0, ""}},
    {"async request handler",
     Role::Server,
     [](NIPCConnector& c, const Code& code) {
         c.registerAsyncRequestHandler("set", [code](auto, auto, auto respond, auto&) {
             code();
             respond(true, "", 0);
         });
     },
     [](NIPCConnector& c) { c.unregisterAsyncRequestHandler("set"); },
     {ASYNC_FUNCTION, 5, computeFunctionId("set"), 0, "", 9}},
    {"event handler",
     Role::Client,
     [](NIPCConnector& c, const Code& code) { c.subscribeForEvent("", "event", [code](auto, auto) { code(); }); },
     [](NIPCConnector& c) { c.unsubscribeForEvent("", "event"); },
     {CALLBACK, 0, computeFunctionId("event"), 0, ""}},
    {"recurring callback",
     Role::Client,
     [](NIPCConnector& c, const Code& code) { c.setRecurringCallback([code](auto, auto, auto) { code(); }); },
     [](NIPCConnector& c) { c.setRecurringCallback(nullptr); },
     {CALLBACK, 0, ASYNC_RESPONSE_SUCCESS_ID, 0, "", 1}},
    {"response callback",
     Role::Client,
     [](NIPCConnector& c, const Code& code) {
         c.makeAsyncRequest("", "name", "", 0, [code](auto, auto, auto) { code(); });
     },
     nullptr,
     {CALLBACK, 0, ASYNC_RESPONSE_SUCCESS_ID, 0, "", 2}}};

void callEverything(NIPCConnector& c) {
    const auto nothing = [](const auto&...) {};
    const std::string large(20000, 'x');
    EXPECT_NE(NIPCConnector::getInstance(true, "from inside", {"service", 7}, nullptr, nullptr).get(), &c);
    EXPECT_TRUE(c.initialize());
    EXPECT_TRUE(c.registerSyncRequestHandler("other", nullptr));
    EXPECT_TRUE(c.registerAsyncRequestHandler("other", nothing));
    c.unregisterSyncRequestHandler("other");
    c.unregisterAsyncRequestHandler("other");
    EXPECT_TRUE(c.subscribeForEvent("", "other", nothing));
    EXPECT_TRUE(c.unsubscribeForEvent("", "other"));
    EXPECT_TRUE(c.unsubscribeFromPublisher(""));
    EXPECT_TRUE(c.publishEvent("other", large));
    c.reportAggregateMetrics();
    EXPECT_EQ(c.makeAsyncRequest("", "other", large.data(), 20000, nothing), RequestStatus::Success);
    EXPECT_EQ(c.makeSyncRequest("", "other", "", 0).status, RequestStatus::Success);
    EXPECT_TRUE(c.setRecurringCallback(nothing));
    EXPECT_EQ(c.makeAsyncRequestWithRecurringCallback("", "other", "", 0), RequestStatus::Success);
}

TEST_F(CallsFromInside, ReturnAsFromOutside) {
    for (const Kind& kind : kinds) {
        SCOPED_TRACE(kind.name);
        const Subject subject = kind.role == Role::Client ? connectedClient() : startedServer();
        int calls = 0;
        kind.store(*subject, [&] {
            ++calls;
            callEverything(*subject);
        });
        platform.deliver(kind.message);
        EXPECT_EQ(calls, 1);
    }
}

TEST_F(CallsFromInside, MayReplaceAndRemoveTheOneThatRuns) {
    for (const Kind& kind : kinds) {
        if (kind.remove == nullptr) continue;
        for (const bool replaces : {true, false}) {
            SCOPED_TRACE(std::string(kind.name) + (replaces ? " is replaced" : " is removed"));
            const Subject subject = kind.role == Role::Client ? connectedClient() : startedServer();
            int first = 0, second = 0;
            auto captured = std::make_shared<int>(7);
            const std::weak_ptr<int> lives = captured;
            kind.store(*subject, [&, captured] {
                ++first;
                if (replaces) {
                    kind.store(*subject, [&] { ++second; });
                } else {
                    kind.remove(*subject);
                }
                EXPECT_EQ(*captured, 7) << "what it captured lives as long as it runs";
            });
            captured.reset();
            platform.deliver(kind.message);
            EXPECT_TRUE(lives.expired());
            platform.deliver(kind.message);
            EXPECT_EQ(first, 1);
            EXPECT_EQ(second, replaces ? 1 : 0);
        }
    }
}

}  // namespace
}  // namespace nipctest
