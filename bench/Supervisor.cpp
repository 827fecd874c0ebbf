#include "Supervisor.h"

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <new>
#include <vector>

#include "Process.h"
#include "Publisher.h"

namespace bench {
namespace {

constexpr int idlePerProcess = 100;  // The platform lets one process have 128 connections to a service.

using Body = std::function<void(Subject& subject)>;

sigset_t childSignal() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGCHLD);
    return set;
}

// The child runs `body` and ends; it does not outlive us.
pid_t spawn(const Options& options, Role role, const Body& body) {
    const pid_t supervisor = getpid();
    const pid_t pid = fork();
    require(pid >= 0, "fork");
    if (pid > 0) return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != supervisor) _exit(2);
    const sigset_t set = childSignal();
    sigprocmask(SIG_UNBLOCK, &set, nullptr);
    pinTo(options.pin, role);
    const std::unique_ptr<Subject> subject = makeSubject(options);
    body(*subject);
    std::fflush(stdout);
    _exit(0);  // The service is about to be killed: an orderly end would only reconnect to it.
}

void serve(const Options& options, Subject& subject, SharedPage& page) {
    subject.startService();
    page.serviceReady = true;
    if (options.is("W3")) {
        subject.awaitSubscribers();
        publishEvents(options, page, [&](const char* data, std::size_t size) { subject.publish(data, size); });
    }
    subject.answer();
}

void keepCalling(const Options& options, Subject& subject, SharedPage& page) {
    subject.connect();
    ++page.helpersReady;
    const std::vector<char> data(options.size, 'b');
    for (long turn = 0;; ++turn) subject.call(0, turn, data.data(), data.size());
}

void keepIdle(int connections, Subject& subject, SharedPage& page) {
    subject.connectIdle(connections);
    ++page.helpersReady;
    for (;;) pause();
}

void raiseDescriptorLimit() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

// Waits for the measured client; any other child that ends, ends too early.
int awaitClient(pid_t client, double seconds) {
    const std::uint64_t deadline = now() + static_cast<std::uint64_t>(seconds * 1e9);
    const sigset_t set = childSignal();
    for (;;) {
        int status = 0;
        const pid_t ended = waitpid(-1, &status, WNOHANG);
        if (ended == client) return WIFEXITED(status) ? WEXITSTATUS(status) : 2;
        if (ended > 0) {
            std::fprintf(stderr, "nipc_bench: a process of the run ended early\n");
            return 2;
        }
        if (now() >= deadline) {
            std::fprintf(stderr, "nipc_bench: timed out\n");
            return 3;
        }
        const timespec tick{1, 0};
        sigtimedwait(&set, nullptr, &tick);
    }
}

SharedPage* makeSharedPage() {
    void* memory = mmap(nullptr, sizeof(SharedPage), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    require(memory != MAP_FAILED, "mmap");
    return new (memory) SharedPage();
}

}  // namespace

int supervise(Options options, const Measure& measure) {
    char directory[] = "/tmp/nipc_bench.XXXXXX";
    require(mkdtemp(directory) != nullptr, "mkdtemp");
    options.directory = directory;
    const std::string sockets = options.directory + "/sockets";
    require(mkdir(sockets.c_str(), 0700) == 0, "mkdir");
    setenv("NEX_NIPC_DIR", sockets.c_str(), 1);
    raiseDescriptorLimit();
    const sigset_t set = childSignal();
    sigprocmask(SIG_BLOCK, &set, nullptr);
    SharedPage& page = *makeSharedPage();

    const auto whenServing = [&page](const Body& body) {
        return [&page, body](Subject& subject) {
            while (!page.serviceReady) nap(1000);
            body(subject);
        };
    };
    std::vector<pid_t> children{spawn(options, Role::Service, [&](Subject& s) { serve(options, s, page); })};
    const auto addClient = [&](const Body& body) {
        children.push_back(spawn(options, Role::Client, whenServing(body)));
    };
    for (int i = 1; i < options.clients; ++i) addClient([&](Subject& s) { keepCalling(options, s, page); });
    for (int left = options.idle; left > 0; left -= idlePerProcess)
        addClient([&, count = std::min(left, idlePerProcess)](Subject& s) { keepIdle(count, s, page); });
    addClient([&, helpers = static_cast<int>(children.size()) - 1](Subject& s) {
        while (page.helpersReady < helpers) nap(1000);
        measure(options, s, page, children.front());
    });

    const int status = awaitClient(children.back(), options.seconds * 2 + 60);
    // The service last, so that no client finds it gone.
    for (auto child = children.rbegin(); child != children.rend(); ++child) kill(*child, SIGKILL);
    while (waitpid(-1, nullptr, 0) > 0) {
    }
    std::error_code ignored;
    std::filesystem::remove_all(options.directory, ignored);
    return status;
}

}  // namespace bench
