// Who is let in, with what the kernel says of the other side told by a stand-in; and how much one process may take.
#include <dlfcn.h>
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <list>

#include "PlatformTest.h"

using namespace nexnipc;

namespace {

struct Pretence {
    std::optional<ucred> peer;
    std::vector<gid_t> groups;
    bool onThisThread = false;  // The client asks here, the service on a thread of the platform's.
};
std::mutex pretenceMutex;
Pretence pretence;
const std::thread::id mainThread = std::this_thread::get_id();

int answerWith(const void* data, std::size_t length, void* value, socklen_t* size) {
    const bool fits = *size >= length;
    *size = static_cast<socklen_t>(length);
    if (fits) std::memcpy(value, data, length);
    if (!fits) errno = ERANGE;
    return fits ? 0 : -1;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int getsockopt(int socket, int level, int option, void* value,
                                                                 socklen_t* size) noexcept {
    {
        const std::lock_guard<std::mutex> lock(pretenceMutex);
        if (pretence.peer && level == SOL_SOCKET &&
            pretence.onThisThread == (std::this_thread::get_id() == mainThread)) {
            const std::vector<gid_t>& groups = pretence.groups;
            if (option == SO_PEERCRED) return answerWith(&*pretence.peer, sizeof(ucred), value, size);
            if (option == SO_PEERGROUPS) return answerWith(groups.data(), groups.size() * sizeof(gid_t), value, size);
        }
    }
    static const auto real = reinterpret_cast<decltype(&getsockopt)>(dlsym(RTLD_NEXT, "getsockopt"));
    return real(socket, level, option, value, size);
}

class TrustTest : public PlatformTest {
protected:
    ~TrustTest() override {
        pretend({});
        unsetenv("NEX_NIPC_GROUP");
        unsetenv("NEX_NIPC_MAX_SYNC");
    }

    static void pretend(const Pretence& now) {
        const std::lock_guard<std::mutex> lock(pretenceMutex);
        pretence = now;
    }
};

TEST_F(TrustTest, OnlyOurUserRootAndTheTrustedGroupTalkToEachOther) {
    const group* const ours = getgrgid(getegid());
    if (ours == nullptr) GTEST_SKIP() << "needs a group with a name";
    const std::string trusted = ours->gr_name;
    std::vector<gid_t> many(100, 4000);
    many.back() = getegid();
    const struct {
        const char* name;
        const char* group;
        ucred peer;
        std::vector<gid_t> groups;
        nex_status_t status;
    } cases[] = {
        {"root", nullptr, {1, 0, 4001}, {}, 0},
        {"our user", nullptr, {1, geteuid(), 4001}, {}, 0},
        {"another user", nullptr, {1, 4000, 4001}, {}, -EACCES},
        {"another user of our group", nullptr, {1, 4000, getegid()}, {getegid()}, -EACCES},
        {"by the main group", trusted.c_str(), {1, 4000, getegid()}, {}, 0},
        {"by one of the groups", trusted.c_str(), {1, 4000, 4001}, {4002, getegid()}, 0},
        {"by one of many groups", trusted.c_str(), {1, 4000, 4001}, many, 0},
        {"not a member", trusted.c_str(), {1, 4000, 4001}, {4002, 4003}, -EACCES},
        {"a group that is none", "no-such-group", {1, 4000, getegid()}, {getegid()}, -EACCES},
    };
    for (const auto& c : cases) {
        for (const bool service : {true, false}) {  // Who finds out whom it talks with.
            SCOPED_TRACE(std::string(c.name) + (service ? ", to the service" : ", to the client"));
            pretend({});
            if (c.group != nullptr) setenv("NEX_NIPC_GROUP", c.group, 1);
            Service offered;
            pretend({c.peer, c.groups, !service});
            EXPECT_EQ(Endpoint().connect(kUuid), c.status);
            EXPECT_TRUE(c.status == 0 || !service || offered.count(NEX_NIPC_EVENT_CLIENT_CONNECTED) == 0);
            unsetenv("NEX_NIPC_GROUP");
        }
    }
}

TEST_F(TrustTest, AnotherUserIsRefused) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root";
    Service service;
    for (const mode_t mode : {mode_t{0700}, mode_t{0755}}) {  // Also where the file modes would let him.
        ASSERT_EQ(chmod(directory.path.c_str(), mode), 0);
        for (const auto& entry : std::filesystem::directory_iterator(directory.path)) {
            ASSERT_EQ(chmod(entry.path().c_str(), 0666), 0);
        }
        nipctest::Process stranger({"stranger"});
        EXPECT_EQ(stranger.hear(), "refused");
    }
    EXPECT_EQ(service.count(NEX_NIPC_EVENT_CLIENT_CONNECTED), 0U);
}

TEST_F(TrustTest, TheLongestSynchronousRequestHoldsOnEitherSide) {
    const std::string longest(20000, 'x');
    setenv("NEX_NIPC_MAX_SYNC", "20000", 1);
    Service service;
    const Client client;
    setenv("NEX_NIPC_MAX_SYNC", "20000000000", 1);  // Not a length, so the usual one.
    const Client bolder;
    for (const Client* each : {&client, &bolder}) {
        EXPECT_EQ(each->call(kRequest, longest, 20000).response, longest);
        EXPECT_EQ(each->call(kRequest, longest + "x", 20000).transport, -EMSGSIZE);
        EXPECT_EQ(each->call(kRequest, "after it").response, "after it");
    }
    EXPECT_EQ(service.count(kRequest), 4U);
}

TEST_F(TrustTest, OneProcessGetsSoManyChannelsAndClients) {
    const Service service;
    const Client late;
    std::list<RawClient> clients;
    for (const unsigned granted : {128U, 128U, 0U}) {
        clients.push_back(letIn());
        unsigned opened = 0;
        while (!HasFailure()) {
            clients.back().control.send(bytesOf(header(FrameType::OpenChannel, 0, 0)));
            const Received answer = receiveFrames(clients.back().control, 1);
            ASSERT_EQ(answer.frames.size(), 1U);
            const bool isOpen = answer.frames[0].header.status == 0;
            EXPECT_EQ(answer.descriptor.valid(), isOpen);
            if (!isOpen) break;
            ++opened;
        }
        EXPECT_EQ(opened, granted);
    }
    EXPECT_EQ(late.call(kRequest, "x").transport, -EUSERS);
    for (RawClient next = letIn(); next.control.valid(); next = letIn()) clients.push_back(std::move(next));
    EXPECT_EQ(clients.size(), 127U);  // The late one is the 128th.
    clients.front().control.send(bytesOf(header(FrameType::CloseChannel, 0, 0)));
    EXPECT_TRUE(eventually([&] { return late.call(kRequest, "x").response == "x"; }));
    clients.pop_front();
    EXPECT_TRUE(eventually([&] { return letIn().control.valid(); }));
}
