#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <set>

#include "PlatformTest.h"
#include "RawPeer.h"

using namespace nipctest;

namespace {

std::uint16_t uuidOf(const std::vector<std::string>& arguments) {
    return static_cast<std::uint16_t>(std::stoi(arguments.at(0)));
}

// Echoes, but never answers kNever; lives as long as its parent.
int service(const std::vector<std::string>& arguments) {
    Endpoint endpoint([](Endpoint&, const Message& message, nexNipc_parameter_t& parameter) {
        if (message.id == kNever) {
            say("inside");
            for (;;) pause();
        }
        if (message.type == SYNC_FUNCTION) echo(parameter);
    });
    say("started " + std::to_string(endpoint.start(uuidOf(arguments))));
    while (!hearParent().empty()) continue;
    _exit(0);
}

// The same, but short of descriptors whenever it is told "starve".
int starved(const std::vector<std::string>& arguments) {
    Endpoint endpoint;
    say("started " + std::to_string(endpoint.start(uuidOf(arguments))));
    rlimit usual{};
    getrlimit(RLIMIT_NOFILE, &usual);
    for (std::string order = hearParent(); !order.empty(); order = hearParent()) {
        const int free = dup(STDIN_FILENO);  // The lowest number that is.
        close(free);
        const rlimit limit{order == "starve" ? static_cast<rlim_t>(free) : usual.rlim_cur, usual.rlim_max};
        setrlimit(RLIMIT_NOFILE, &limit);
        say("done");
    }
    return 0;
}

// Tries to reach a service as another user.
int stranger(const std::vector<std::string>& arguments) {
    if (setgid(65534) != 0 || setuid(65534) != 0) return 1;
    Endpoint client;
    say(client.connect(uuidOf(arguments)) == 0 ? "let in" : "refused");
    return 0;
}

int descriptors(const std::vector<std::string>&) {
    say(std::to_string(descriptorCount(getpid())));
    return 0;
}

// Shares with itself at each order, and says whether the next region is one that it had before.
int sharing(const std::vector<std::string>& arguments) {
    Endpoint service([](Endpoint& self, const Message& message, nexNipc_parameter_t&) {
        if (message.id == SERVER_SHARE_FD_ID) self.callback(message.peer, SERVER_FD_PROCESSING_COMPLETED_ID, "");
    });
    Endpoint client;
    if (service.start(uuidOf(arguments)) != 0 || client.connect(uuidOf(arguments)) != 0) return 1;
    std::set<ino_t> known;
    for (;;) {
        const int region = regionOf("payload");
        struct stat status {};
        fstat(region, &status);
        say(known.insert(status.st_ino).second ? "fresh" : "again");
        if (hearParent().empty() || client.share(0, region, {7, kRequest, 0}) != 0) return 1;
        client.next(SERVER_FD_PROCESSING_COMPLETED_ID);
        close(region);  // Not before, as the service may get its descriptor of the region under the same number.
    }
}

// Leaves its ends of a connection, the first or all, in a socket that the service does not read, and nowhere else.
int abandoning(const std::vector<std::string>& arguments) {
    const auto uuid = uuidOf(arguments);
    const RawClient client = letIn(arguments.at(1), uuid);
    say("in");
    const std::string where = hearParent();
    if (where == "channel") client.control.send(packet(header(nexnipc::FrameType::OpenChannel, 0, 0), 0));
    const RawPeer channel = where == "channel" ? client.control.receiveDescriptor() : RawPeer();
    for (const RawPeer* const end : {&client.main, &client.control, &channel}) {
        if (end == &client.control && where == "main") break;
        const RawPeer& into = channel.valid() ? channel : client.main;
        if (end->valid()) into.send(packet(header(nexnipc::FrameType::Share, 0, 10), 10), {end->fd()});
    }
    return 0;
}

std::future<nex_status_t> waitingConnect;
Endpoint* connected = nullptr;

// Ends while one connect waits and one client is connected.
int ending(const std::vector<std::string>& arguments) {
    std::atexit([] {
        const bool ended = waitingConnect.wait_for(kPatience) == std::future_status::ready;
        say("connect " + std::to_string(ended ? waitingConnect.get() : 0));
        say("disconnect " + std::to_string(connected->disconnect()));
    });
    connected = new Endpoint;
    if (connected->connect(uuidOf(arguments)) != 0) return 1;
    static Endpoint& waiting = *new Endpoint;  // Used by a thread that outlives us.
    const auto absent = static_cast<std::uint16_t>(uuidOf(arguments) + 1);
    if (waiting.connect(absent) == 0) return 1;  // The first attempt is short, the second waits.
    waitingConnect = std::async(std::launch::async, [absent] { return waiting.connect(absent); });
    waitingConnect.wait_for(std::chrono::milliseconds(200));
    std::exit(0);
}

std::atomic<bool> leftListener{false};

// Ends while a listener that has disconnected its own handle is still running.
int selfended(const std::vector<std::string>& arguments) {
    std::atexit([] { say(leftListener ? "after it" : "during it"); });  // Runs after the platform's.
    static Signal inside;
    static Endpoint& client = *new Endpoint([](Endpoint& self, const Message& message, nexNipc_parameter_t&) {
        if (message.id != NEX_NIPC_EVENT_CONNECTION_DONE) return;
        self.disconnect();
        inside.set();
        std::int32_t nobody = 1 << 20;
        while (nexNipc_disconnect(&nobody) != 0) std::this_thread::yield();  // Until the process goes quiet.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        leftListener = true;
    });
    if (client.connect(uuidOf(arguments)) != 0 || !inside.wait()) return 1;
    std::exit(0);
}

}  // namespace

int main(int argc, char** argv) {
    const int status = runRole(argc, argv,
                               {{"service", service},
                                {"starved", starved},
                                {"sharing", sharing},
                                {"abandoning", abandoning},
                                {"stranger", stranger},
                                {"descriptors", descriptors},
                                {"ending", ending},
                                {"selfended", selfended}});
    if (status >= 0) return status;
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
