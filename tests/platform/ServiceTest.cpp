// What is promised of services coming, going and being looked for, and of the end of a handle.
#include <grp.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <set>

#include "PlatformTest.h"

using namespace nipctest;
using namespace std::chrono_literals;

using ServiceTest = PlatformTest;

TEST_F(ServiceTest, ALiveServiceKeepsItsUuidAKilledOneEndsCallsAndIsWaitedForAndReplaced) {
    Process first({"service"});
    ASSERT_EQ(first.hear(), "started 0");
    Endpoint second;
    EXPECT_EQ(second.start(kUuid), -EADDRINUSE);
    Client client;
    EXPECT_EQ(client.call(kRequest, "hello").response, "hello");

    std::future<Answer> waiting = std::async(std::launch::async, [&] { return client.call(kNever, ""); });
    EXPECT_EQ(first.hear(), "inside");
    first.kill();
    EXPECT_EQ(waiting.get().transport, -ECONNRESET);
    client.next(NEX_NIPC_EVENT_SERVER_DOWN);
    EXPECT_NE(client.call(kRequest, "hello").transport, 0);

    // Its socket stays behind and refuses, which counts as absent: one attempt is short, and later ones wait.
    Endpoint late;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_NE(late.connect(kUuid), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 900ms);
    std::future<nex_status_t> later = std::async(std::launch::async, [&late] { return late.connect(kUuid); });
    EXPECT_EQ(later.wait_for(1500ms), std::future_status::timeout);
    EXPECT_EQ(second.start(kUuid), 0);
    EXPECT_EQ(later.get(), 0);
    EXPECT_EQ(late.next(NEX_NIPC_EVENT_CONNECTION_DONE).status, 0);

    Endpoint third;
    EXPECT_EQ(third.start(kUuid), -EADDRINUSE);
    EXPECT_EQ(second.disconnect(), 0);
    EXPECT_EQ(third.start(kUuid), 0);
    EXPECT_EQ(client.count(NEX_NIPC_EVENT_SERVER_DOWN), 0U);
}

TEST_F(ServiceTest, ConnectionDoneComesFirstOnAThreadOfTheHandleWhichIsWrittenBefore) {
    Service service([](Endpoint& self, const Message& message, nexNipc_parameter_t&) {
        if (message.id == NEX_NIPC_EVENT_CLIENT_CONNECTED) self.callback(message.peer, kEvent, "welcome");
    });
    std::atomic<int> first{0};
    Client client([&first](Endpoint&, const Message& message, nexNipc_parameter_t&) {
        int none = 0;
        first.compare_exchange_strong(none, message.id);
    });
    const Message done = client.next(NEX_NIPC_EVENT_CONNECTION_DONE);
    EXPECT_EQ(client.next(kEvent).data, "welcome");
    EXPECT_EQ(first, NEX_NIPC_EVENT_CONNECTION_DONE);
    EXPECT_EQ(done.status, 0);
    EXPECT_EQ(done.handle, client.handle);
    EXPECT_NE(done.thread, static_cast<pid_t>(syscall(SYS_gettid)));
    const Message connected = service.next(NEX_NIPC_EVENT_CLIENT_CONNECTED);
    EXPECT_EQ(connected.handle, service.handle);
    EXPECT_NE(connected.thread, done.thread);
    EXPECT_NE(service.handle, client.handle);
}

TEST_F(ServiceTest, DisconnectWaitsForTheListenerAlsoWhereThatEndedItsHandleAndNoneRunsAfterIt) {
    Service service;
    for (const bool itself : {false, true}) {
        SCOPED_TRACE(itself);
        Signal inside;
        Signal release;
        std::atomic<bool> left{false};
        std::atomic<int> calls{0};
        Client client([&](Endpoint& self, const Message& message, nexNipc_parameter_t&) {
            if (message.id != kEvent || ++calls > 1) return;
            std::int32_t handle = self.handle;
            EXPECT_EQ(itself ? nexNipc_disconnect(&handle) : 0, 0);
            inside.set();
            release.wait();
            left = true;
        });
        const std::uint16_t id = service.arrived();
        for (int i = 0; i < 10; ++i) service.callback(id, kEvent, "");  // All but one are not delivered any more.
        ASSERT_TRUE(inside.wait());
        std::future<bool> ended =
            std::async(std::launch::async, [&] { return client.disconnect() == (itself ? -EBADF : 0) && left; });
        EXPECT_EQ(ended.wait_for(100ms), std::future_status::timeout);
        release.set();
        EXPECT_TRUE(ended.get());
        EXPECT_EQ(calls, 1);
        EXPECT_EQ(client.count(NEX_NIPC_EVENT_SERVER_DOWN), 0U);
        EXPECT_EQ(service.left(), id);
        EXPECT_EQ(service.callback(id, kEvent, ""), -ENOTCONN);
    }
}

TEST_F(ServiceTest, ClientIdsBelongToOneServiceAndAreNotReusedSoon) {
    Service services[] = {Service(), Service({}, kUuid + 1)};
    std::set<std::uint16_t> ids;
    for (int round = 0; round < 20; ++round) {
        for (std::uint16_t s = 0; s < 2; ++s) {
            Endpoint client;
            ASSERT_EQ(client.connect(static_cast<std::uint16_t>(kUuid + s)), 0);
            const std::uint16_t id = services[s].arrived();
            EXPECT_TRUE(ids.insert(id).second) << id;
            EXPECT_EQ(services[1 - s].callback(id, kEvent, ""), -ENOTCONN);
            EXPECT_EQ(services[s].callback(id, kEvent, ""), 0);
        }
    }
}

TEST_F(ServiceTest, AtExitItGoesQuietAnswersLateCallsAndWaitsForAListenerThatEndedItsOwnHandle) {
    Service service;
    Process ending({"ending"});
    EXPECT_EQ(ending.hear(), "connect " + std::to_string(-ECANCELED));
    EXPECT_EQ(ending.hear(), "disconnect 0");
    EXPECT_EQ(ending.hear(), "after the listener");
    EXPECT_EQ(ending.wait(), 0);
    service.left();
    service.left();
}

TEST_F(ServiceTest, OnlyASafeDirectoryIsUsedAndItIsCheckedEachTime) {
    namespace fs = std::filesystem;
    const fs::path place = fs::path(directory.path) / "services";
    const group* const ours = getgrgid(getegid());
    const struct {
        const char* name;
        mode_t mode;
        uid_t owner;
        bool link;
        nex_status_t status;
        bool trustsGroup = false;
    } cases[] = {
        {"made by the service", 0, 0, false, 0},
        {"private", 0700, 0, false, 0},
        {"written by everybody", 0777, 0, false, -EPERM},
        {"written by others", 0702, 0, false, -EPERM},
        {"written by a group", 0770, 0, false, -EPERM},
        {"written by the trusted group", 0770, 0, false, 0, true},
        {"written by that group and others", 0772, 0, false, -EPERM, true},
        {"somebody else's", 0700, 65534, false, -EPERM},
        {"behind a link", 0700, 0, true, -ENOTDIR},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        if ((c.owner != 0 && geteuid() != 0) || (c.trustsGroup && ours == nullptr)) continue;
        const fs::path real = place.string() + (c.link ? ".real" : "");
        ASSERT_TRUE(c.mode == 0 || (mkdir(real.c_str(), 0700) == 0 && chmod(real.c_str(), c.mode) == 0));
        ASSERT_TRUE(c.owner == 0 || chown(real.c_str(), c.owner, c.owner) == 0);
        if (c.link) fs::create_symlink(real, place);
        setenv("NEX_NIPC_DIR", place.c_str(), 1);
        if (c.trustsGroup) setenv("NEX_NIPC_GROUP", ours->gr_name, 1);
        Endpoint service;
        EXPECT_EQ(service.start(kUuid), c.status);
        if (c.status == 0) {
            Client client;
            ASSERT_EQ(chmod(place.c_str(), 0777), 0);
            EXPECT_EQ(Endpoint().connect(kUuid), -EPERM);
            EXPECT_EQ(client.call(kRequest, "x").response, "x");
        }
        service.disconnect();
        unsetenv("NEX_NIPC_GROUP");
        fs::remove_all(place);
        fs::remove_all(real);
    }
}
