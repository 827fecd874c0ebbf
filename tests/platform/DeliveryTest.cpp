// What is promised of requests, answers and events between a service and its clients.
#include <cerrno>
#include <map>

#include "PlatformTest.h"

using namespace nipctest;
using namespace std::chrono_literals;

using DeliveryTest = PlatformTest;

namespace {

// What is sent as number so much; of changing length.
std::string numbered(std::uint32_t number) { return filled(std::to_string(number), number * 37 % 4000); }
void* wideContext(std::uint32_t number) { return contextOf(static_cast<std::uintptr_t>(number * 0xFEDCBA987654321U)); }

constexpr std::uint32_t kMiB = 1U << 20U;

}  // namespace

TEST_F(DeliveryTest, EachLaneKeepsItsOrderAndOneListenerCallRunsAtATime) {
    constexpr std::uint32_t kCount = 200;
    std::atomic<int> inside{0};
    std::atomic<int> faults{0};
    std::map<std::uint16_t, std::uint32_t> seen;  // Without a lock: that is the promise.
    Service service([&](Endpoint& self, const Message& message, nexNipc_parameter_t& parameter) {
        if (inside.fetch_add(1) != 0) ++faults;
        if (message.id == NEX_NIPC_EVENT_CLIENT_CONNECTED) {
            seen[message.peer] = 0;
        } else if (message.id == NEX_NIPC_EVENT_CLIENT_DISCONNECTED) {
            if (seen[message.peer] != kCount) ++faults;
        } else {
            if (seen.count(message.peer) == 0 || message.data != numbered(seen[message.peer]++)) ++faults;
            if (message.type == SYNC_FUNCTION) echo(parameter);
            if (self.callback(message.peer, kEvent, message.data, message.context) != 0) ++faults;
        }
        --inside;
    });
    const auto useOne = [&] {
        Client client;
        for (std::uint32_t i = 0; i < kCount; ++i) {
            const bool sent = i % 5 == 0 ? client.call(kRequest, numbered(i)).response == numbered(i)
                                         : client.request(kRequest, numbered(i), wideContext(i)) == 0;
            if (!sent) ++faults;
        }
        for (std::uint32_t i = 0; i < kCount; ++i) {
            const Message event = client.next(kEvent);
            if (event.data != numbered(i) || event.context != wideContext(i % 5 == 0 ? 0 : i)) ++faults;
        }
    };
    std::future<void> clients[4];
    for (std::future<void>& client : clients) client = std::async(std::launch::async, useOne);
    for (std::future<void>& client : clients) client.get();
    for (int i = 0; i < 4; ++i) service.left();
    EXPECT_EQ(faults, 0);
}

TEST_F(DeliveryTest, WhatAClientSentBeforeItLeftArrivesWhileOthersConnect) {
    constexpr std::size_t kCount = 200;
    Signal left;
    std::atomic<std::size_t> arrivedBefore{0};
    Service service([&](Endpoint& self, const Message& message, nexNipc_parameter_t&) {
        if (message.data == "0") left.wait();
        if (message.id == NEX_NIPC_EVENT_CLIENT_DISCONNECTED) arrivedBefore = self.count(kRequest);
    });
    Client client;
    for (std::size_t i = 0; i < kCount; ++i) ASSERT_EQ(client.request(kRequest, std::to_string(i)), 0);
    client.disconnect();
    Client next;  // When it is let in, the lane has seen the first one go.
    EXPECT_EQ(next.next(NEX_NIPC_EVENT_CONNECTION_DONE).status, 0);
    EXPECT_EQ(service.count(kRequest), 0U);
    left.set();
    service.left();
    EXPECT_EQ(arrivedBefore, kCount);
}

TEST_F(DeliveryTest, ASynchronousRequestCarriesTheServicesResult) {
    const struct {
        const char* name;
        std::uint32_t size;
        std::uint32_t capacity;
        void (*serve)(nexNipc_parameter_t&);
        nex_status_t transport;
        std::int32_t status;
        std::uint32_t answered;
    } cases[] = {
        {"nothing", 0, 16384, echo, 0, 0, 0},
        {"a packet", 16384, 16384, echo, 0, 0, 16384},
        {"one more than a packet", 16385, 16385, echo, 0, 0, 16385},
        {"1 MiB there", kMiB, 16384, [](nexNipc_parameter_t& p) { answer(p, "got it"); }, 0, 0, 6},
        {"1 MiB there and back", kMiB, kMiB, echo, 0, 0, kMiB},
        {"64 MiB", 64 * kMiB, 16384, [](nexNipc_parameter_t& p) { answer(p, "got it"); }, 0, 0, 6},
        {"over 64 MiB", 64 * kMiB + 1, 16384, echo, -EMSGSIZE, 1, 0},
        {"a large buffer for a small request", 1, 16384, [](auto& p) { answer(p, std::string(16384, 'a')); }, 0, 0,
         16384},
        {"no room", 100, 10, echo, 0, 0, 10},
        {"missing handler", 5, 16384, [](nexNipc_parameter_t& p) { *p.status = -1; }, 0, -1, 0},
        {"response too large", 5, 16384, [](nexNipc_parameter_t& p) { *p.status = -3; }, 0, -3, 0},
        {"a listener that says nothing", 5, 16384, [](nexNipc_parameter_t&) {}, 0, -1, 0},
        {"a listener that lies", 5, 16384, [](auto& p) { answer(p, "a"), *p.length = 1U << 30U; }, 0, 0, 16384},
    };
    Service service([&cases](Endpoint&, const Message& message, nexNipc_parameter_t& parameter) {
        if (message.type == SYNC_FUNCTION) cases[message.id - kRequest].serve(parameter);
    });
    Client client;
    std::uint16_t function = kRequest;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::string payload(c.size, '\0');
        for (std::size_t i = 0; i < payload.size(); i += 251) payload[i] = static_cast<char>(i % 127);
        const Answer answer = client.call(function, payload, c.capacity);
        EXPECT_EQ(answer.transport, c.transport);
        EXPECT_EQ(answer.status, c.status);
        EXPECT_EQ(answer.response.size(), c.answered);
        EXPECT_TRUE(c.serve != echo || payload.compare(0, answer.response.size(), answer.response) == 0);
        EXPECT_TRUE(c.transport != 0 || service.next(function).data == payload);
        ++function;
    }
}

TEST_F(DeliveryTest, ATimeLimitEndsARequestAndItsLateAnswerGoesToNobody) {
    Signal release;
    Service service([&](Endpoint&, const Message& message, nexNipc_parameter_t& parameter) {
        if (message.data == "late") release.wait();
        if (message.type == SYNC_FUNCTION) echo(parameter);
    });
    setenv("NEX_NIPC_SYNC_TIMEOUT_MS", "700", 1);
    Client client;
    unsetenv("NEX_NIPC_SYNC_TIMEOUT_MS");
    EXPECT_EQ(client.call(kNever, "late").transport, -ETIMEDOUT);
    EXPECT_EQ(client.call(kNever, std::string(100, 'l')).transport, -ETIMEDOUT);
    // This one waits where they waited, with less room than their answers need.
    std::future<Answer> good = std::async(std::launch::async, [&] { return client.call(kRequest, "good", 10); });
    EXPECT_EQ(good.wait_for(100ms), std::future_status::timeout);
    release.set();
    EXPECT_EQ(good.get().response, "good");
    for (int i = 0; i < 10; ++i) EXPECT_EQ(client.call(kRequest, std::to_string(i)).response, std::to_string(i));
}

TEST_F(DeliveryTest, WhatCannotBeCarriedIsRefused) {
    std::atomic<nex_status_t> inner{0};
    std::atomic<const Endpoint*> own{nullptr};
    Service service([&](Endpoint&, const Message& message, nexNipc_parameter_t& parameter) {
        if (message.data == "outer") inner = own.load()->call(kRequest, "inner").transport;
        if (message.type == SYNC_FUNCTION) echo(parameter);
    });
    Client client;
    own = &client;
    EXPECT_EQ(client.call(kRequest, "outer").response, "outer");
    const std::uint16_t id = service.arrived();
    AsyncRpcRecord nothing{kRequest, 0, nullptr, 10, 0, kRequest, 0, 0, nullptr};
    AsyncRpcRecord good{kRequest, 0, nullptr, 0, 0, kRequest, 0, 0, nullptr};
    CallbackRecord noEvent{0, kEvent, 0, 0, nullptr, 10, nullptr};
    std::int32_t handle = 0;
    const struct {
        const char* name;
        nex_status_t result;
        nex_status_t expected;
    } cases[] = {
        {"a request that is too long", client.request(kRequest, std::string(16385, 'x')), -EMSGSIZE},
        {"an event that is too long", service.callback(id, kEvent, std::string(16385, 'x')), -EMSGSIZE},
        {"a share identifier in a request", client.request(SERVER_SHARE_FD_ID, ""), -EINVAL},
        {"a share identifier in a call", client.call(SERVER_SHARE_FD_ID, "").transport, -EINVAL},
        {"a share identifier in an event", service.callback(id, CLIENT_SHARE_FD_ID, ""), -EINVAL},
        {"an acknowledgement of the other side", client.request(SERVER_FD_PROCESSING_COMPLETED_ID, ""), -EINVAL},
        {"an acknowledgement as call", client.call(CLIENT_FD_PROCESSING_COMPLETED_ID, "").transport, -EINVAL},
        {"an acknowledgement as event", service.callback(id, CLIENT_FD_PROCESSING_COMPLETED_ID, ""), -EINVAL},
        {"a null payload with a length", nexNipc_rpcAsync(client.handle, &nothing), -EINVAL},
        {"a null event with a length", nexNipc_callback(service.handle, id, &noEvent), -EINVAL},
        {"a call to one's own service from its handler", inner, -EDEADLK},
        {"no record", nexNipc_rpcSync(client.handle, nullptr), -EINVAL},
        {"no start record", nexNipc_start(&handle, nullptr), -EINVAL},
        {"no handle", nexNipc_disconnect(nullptr), -EINVAL},
        {"a handle of nobody", nexNipc_rpcAsync(1 << 20, &good), -EBADF},
        {"a request of a service", service.request(kRequest, ""), -EBADF},
        {"an event of a client", client.callback(id, kEvent, ""), -EBADF},
        {"a client that is not there", service.callback(static_cast<std::uint16_t>(id + 1), kEvent, ""), -ENOTCONN},
    };
    for (const auto& c : cases) EXPECT_EQ(c.result, c.expected) << c.name;
    EXPECT_EQ(client.call(kRequest, "still here").response, "still here");
}
