#include "ConnectorTest.h"

namespace nipctest {
namespace {

/// Every operation inside every kind of handler and callback, on the connector that calls it.
using CallsFromInside = ConnectorTest;

using Code = std::function<void()>;

/// One kind of user code: how it is stored, removed and called.
struct Kind {
    const char* name;
    Role role;
    std::function<void(NIPCConnector&, Code)> store;
    std::function<void(NIPCConnector&)> remove;  // Nothing where it runs once at most.
    std::function<void(FakePlatform&)> call;
};

smarthome::AsyncResponseCallback callback(Code code) {
    return [code = std::move(code)](bool, const char*, unsigned int) { code(); };
}

const std::vector<Kind>& kinds() {
    static const std::vector<Kind> all = {
        {"sync request handler", Role::Server,
         [](NIPCConnector& c, Code code) {
             c.registerSyncRequestHandler("get", [code = std::move(code)](const char*, unsigned int) {
                 code();
                 return std::vector<char>(1);
             });
         },
         [](NIPCConnector& c) { c.unregisterSyncRequestHandler("get"); },
         [](FakePlatform& platform) { platform.deliverRequest(SYNC_FUNCTION, computeFunctionId("get"), "", 5); }},
        {"async request handler", Role::Server,
         [](NIPCConnector& c, Code code) {
             c.registerAsyncRequestHandler(
                 "set", [code = std::move(code)](const char*, unsigned int, auto respond, const std::string&) {
                     code();
                     respond(true, "", 0);
                 });
         },
         [](NIPCConnector& c) { c.unregisterAsyncRequestHandler("set"); },
         [](FakePlatform& platform) { platform.deliverRequest(ASYNC_FUNCTION, computeFunctionId("set"), "", 5, 9); }},
        {"event handler", Role::Client,
         [](NIPCConnector& c, Code code) {
             c.subscribeForEvent("", "event", [code = std::move(code)](const char*, unsigned int) { code(); });
         },
         [](NIPCConnector& c) { c.unsubscribeForEvent("", "event"); },
         [](FakePlatform& platform) { platform.deliverCallback(computeFunctionId("event"), ""); }},
        {"recurring callback", Role::Client,
         [](NIPCConnector& c, Code code) { c.setRecurringCallback(callback(std::move(code))); },
         [](NIPCConnector& c) { c.setRecurringCallback(nullptr); },
         [](FakePlatform& platform) { platform.deliverCallback(ASYNC_RESPONSE_SUCCESS_ID, "", 1); }},
        {"response callback", Role::Client,
         [](NIPCConnector& c, Code code) { c.makeAsyncRequest("", "name", "", 0, callback(std::move(code))); }, nullptr,
         [](FakePlatform& platform) {
             const auto requests = platform.calls(Operation::RpcAsync);
             platform.deliverCallback(ASYNC_RESPONSE_SUCCESS_ID, "", requests.back().requestContext);
         }}};
    return all;
}

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
    for (const Kind& kind : kinds()) {
        SCOPED_TRACE(kind.name);
        const Subject subject = kind.role == Role::Client ? connectedClient() : startedServer();
        int calls = 0;
        kind.store(*subject, [&] {
            ++calls;
            callEverything(*subject);
        });
        kind.call(platform);
        EXPECT_EQ(calls, 1);
    }
}

TEST_F(CallsFromInside, MayReplaceAndRemoveTheOneThatRuns) {
    for (const Kind& kind : kinds()) {
        if (!kind.remove) continue;
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
            kind.call(platform);
            EXPECT_TRUE(lives.expired());
            kind.call(platform);
            EXPECT_EQ(first, 1);
            EXPECT_EQ(second, replaces ? 1 : 0);
        }
    }
}

}  // namespace
}  // namespace nipctest
