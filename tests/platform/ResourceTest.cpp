// What is promised of threads, descriptors, queues and time spent.
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <list>
#include <map>
#include <utility>

#include "PlatformTest.h"

using namespace nexnipc;
using namespace nipctest;
using namespace std::chrono_literals;

namespace {

using Fields = std::map<std::string, std::string>;

// What the kernel says of those of the platform, which are known by their names.
std::vector<Fields> platformThreads() {
    std::vector<Fields> threads;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        Fields thread;
        std::ifstream status(task.path() / "status");
        for (std::string key; status >> key;) std::getline(status, thread[key]);
        if (thread["Name:"].find("nipc-") != std::string::npos) threads.push_back(thread);
    }
    return threads;
}

std::uint64_t switches() {
    std::uint64_t sum = 0;
    for (Fields& thread : platformThreads()) sum += std::stoull(thread["voluntary_ctxt_switches:"]);
    return sum;
}

double processorSeconds(pid_t pid) {
    clockid_t clock{};
    timespec time{};
    EXPECT_EQ(clock_getcpuclockid(pid, &clock), 0);
    EXPECT_EQ(clock_gettime(clock, &time), 0);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

}  // namespace

using ResourceTest = PlatformTest;

TEST_F(ResourceTest, ThreadsHaveNamesTakeNoSignalsAndSleepWhenIdle) {
    const Service service;
    Client client;
    client.next(NEX_NIPC_EVENT_CONNECTION_DONE);
    for (int i = 0; i < 100; ++i) client.call(kRequest, "x");
    EXPECT_TRUE(eventually([] { return platformThreads().size() == 3; }));  // One of the process, one of each handle.
    for (Fields& thread : platformThreads()) {
        const std::uint64_t blocked = std::stoull(thread["SigBlk:"], nullptr, 16);
        for (const int signal : {SIGINT, SIGTERM, SIGCHLD, SIGUSR1, SIGALRM, SIGPIPE}) {
            EXPECT_TRUE(blocked >> static_cast<unsigned>(signal - 1) & 1U) << thread["Name:"] << " takes " << signal;
        }
    }
    // A timer of the last handshake may still go off, but soon two seconds pass without anything.
    std::uint64_t woken = 1;
    for (int spans = 0; spans < 4 && woken > 0; ++spans) {
        const std::uint64_t before = switches();
        std::this_thread::sleep_for(2s);
        woken = switches() - before;
    }
    EXPECT_EQ(woken, 0U);
}

TEST_F(ResourceTest, ConnectionsComeAndGoWithoutATraceAndNoneIsInheritedThroughExec) {
    const std::string inherited = Process({"descriptors"}).hear();
    Service service;
    const auto useOne = [&service] {
        const Client client;
        EXPECT_EQ(client.call(kRequest, std::string(20000, 'x'), 20000).response.size(), 20000U);
        const int region = regionOf("payload");
        EXPECT_EQ(client.share(0, region, {7, kRequest, 0}), 0);
        close(region);
        service.next(SERVER_SHARE_FD_ID);
    };
    useOne();
    service.left();
    const pid_t self = getpid();
    std::size_t descriptors = descriptorCount(self);
    EXPECT_TRUE(eventually([&] { return std::exchange(descriptors, descriptorCount(self)) == descriptors; }));
    const std::size_t tasks = taskCount(self);
    for (int i = 0; i < 30; ++i) useOne();
    EXPECT_TRUE(eventually([&] { return descriptorCount(self) <= descriptors && taskCount(self) <= tasks; }));
    const Client last;
    last.call(kRequest, std::string(100000, 'x'), 100000);
    EXPECT_EQ(Process({"descriptors"}).hear(), inherited);
}

TEST_F(ResourceTest, AServiceThatStartsShortOfDescriptorsSaysSoOrServes) {
    nex_status_t status = -EMFILE;
    for (rlim_t spare = 0; status == -EMFILE && spare < 20; ++spare) {
        Endpoint service;
        limitDescriptors(spare);
        status = service.start(kUuid);
        // Whatever its thread would still open, it has not got.
        if (status == 0) std::this_thread::sleep_for(50ms);
        limitDescriptors(std::nullopt);
        if (status == 0) {
            EXPECT_EQ(Client().call(kRequest, "x").response, "x");
        }
    }
    EXPECT_EQ(status, 0);
}

TEST_F(ResourceTest, AServiceShortOfDescriptorsGoesOnWithoutSpinning) {
    Process service({"service"});
    ASSERT_EQ(service.hear(), "started 0");
    const Client before;
    EXPECT_EQ(before.call(kRequest, "x").response, "x");
    service.send("starve");
    ASSERT_EQ(service.hear(), "done");
    {
        std::list<Endpoint> refused(5);
        const double spent = processorSeconds(service.pid());
        for (Endpoint& client : refused) EXPECT_NE(client.connect(kUuid), 0);
        EXPECT_LT(processorSeconds(service.pid()) - spent, 1.0);
        EXPECT_EQ(before.call(kRequest, "y").response, "y");
    }
    service.send("recover");
    ASSERT_EQ(service.hear(), "done");
    EXPECT_EQ(Client().call(kRequest, "z").response, "z");
}

TEST_F(ResourceTest, ClientsThatDoNotReadCostTheOthersNoAnswer) {
    std::atomic<std::size_t> length{0};
    Service service([&](Endpoint& self, const Message& message, nexNipc_parameter_t& parameter) {
        answering(length)(self, message, parameter);
    });
    const RawClient healthy = letIn();
    service.arrived();
    std::list<RawClient> idle;
    std::size_t queued = 0;
    for (std::size_t sent = 50; sent >= 50; queued += sent * 16000) {
        ASSERT_LT(idle.size(), 100U) << "no limit for all queues";
        idle.push_back(letIn());
        sent = service.fill(service.arrived());
    }
    EXPECT_GT(queued, 60U << 20U);
    EXPECT_LT(queued, (64U << 20U) + idle.size() * (512U << 10U));
    constexpr unsigned kCount = 20;
    const std::string asked = requests(0, kCount);
    const auto expectAnswers = [](const RawClient& client, unsigned count) {
        EXPECT_EQ(receiveFrames(client.main, count).frames.size(), count);
    };
    for (const std::size_t each : {100U, 5000U}) {
        SCOPED_TRACE(each);
        length = each;
        for (unsigned round = 0; round < 5; ++round) {
            EXPECT_TRUE(healthy.main.send(asked));
            expectAnswers(healthy, kCount);
        }
    }
    EXPECT_EQ(lost, 0U);

    // Nor their own, as long as there is any room: the requests of who does not take the answers wait.
    idle.pop_front();
    service.left();
    const RawClient reader = letIn();
    const std::uint16_t id = service.arrived();
    for (unsigned i = 0; i < 80; ++i) EXPECT_EQ(service.callback(id, kEvent, std::string(16000, '.')), 0);
    const RawClient late = letIn();
    service.forget();
    for (unsigned i = 0; i < 40; ++i) EXPECT_TRUE(late.main.send(asked));
    EXPECT_TRUE(healthy.main.send(asked));
    expectAnswers(healthy, kCount);
    EXPECT_LT(service.count(kRequest), 10 * kCount);
    expectAnswers(late, 40 * kCount);
    EXPECT_EQ(lost, 0U);
}
