#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <set>

#include "PlatformTest.h"

using namespace nipctest;

namespace {

// Echoes, but never answers kNever, and is short of descriptors from "starve" on; lives as long as its parent.
int service(const std::vector<std::string>&) {
    Endpoint endpoint([](Endpoint&, const Message& message, nexNipc_parameter_t& parameter) {
        if (message.id == kNever) {
            say("inside");
            for (;;) pause();
        }
        if (message.type == SYNC_FUNCTION) echo(parameter);
    });
    say("started " + std::to_string(endpoint.start(kUuid)));
    for (std::string order = hearParent(); !order.empty(); order = hearParent()) {
        limitDescriptors(order == "starve" ? std::optional<rlim_t>(0) : std::nullopt);
        say("done");
    }
    _exit(0);
}

// Tries to reach a service as another user.
int stranger(const std::vector<std::string>&) {
    if (setgid(65534) != 0 || setuid(65534) != 0) return 1;
    say(Endpoint().connect(kUuid) == 0 ? "let in" : "refused");
    return 0;
}

int descriptors(const std::vector<std::string>&) {
    say(std::to_string(descriptorCount(getpid())));
    return 0;
}

// Shares with itself at each order, and says whether the next region is one that it had before.
int sharing(const std::vector<std::string>&) {
    Service service([](Endpoint& self, const Message& message, nexNipc_parameter_t&) {
        if (message.id == SERVER_SHARE_FD_ID) self.callback(message.peer, SERVER_FD_PROCESSING_COMPLETED_ID, "");
    });
    Client client;
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

// Leaves its ends of a connection, none, the first or all, in a socket that the service does not read, and nowhere
// else.
int abandoning(const std::vector<std::string>& arguments) {
    const RawClient client = letIn(arguments.at(0), kUuid);
    say("in");
    const std::string where = hearParent();
    for (int i = 0; i < 50; ++i) client.main.send(requests(0, 1));
    if (where == "channel") client.control.send(packet(header(nexnipc::FrameType::OpenChannel, 0, 0), 0));
    const RawPeer channel = where == "channel" ? client.control.receiveDescriptor() : RawPeer();
    for (const RawPeer* const end : {&client.main, &client.control, &channel}) {
        if (where == "none" || (where == "main" && end != &client.main)) break;
        const RawPeer& into = channel.valid() ? channel : client.main;
        if (end->valid()) into.send(packet(header(nexnipc::FrameType::Share, 0, 10), 10), {end->fd()});
    }
    return 0;
}

std::future<nex_status_t> waitingConnect;
Endpoint* connected = nullptr;
std::atomic<bool> leftListener{false};

void sayHowItEnded() {
    const char* const end = leftListener ? "after the listener" : "during the listener";
    const bool ended = waitingConnect.wait_for(kPatience) == std::future_status::ready;
    say("connect " + std::to_string(ended ? waitingConnect.get() : 0));
    say("disconnect " + std::to_string(connected->disconnect()));
    say(end);
}

// Ends while one client is connected, one waits to be, and the listener of one that has disconnected itself still runs.
int ending(const std::vector<std::string>&) {
    std::atexit(sayHowItEnded);  // Runs after the platform's.
    connected = new Endpoint;
    static Endpoint& waiting = *new Endpoint;  // Used by a thread that outlives us, as those below.
    static Signal inside;
    static Endpoint& left = *new Endpoint([](Endpoint& self, const Message& message, nexNipc_parameter_t&) {
        if (message.id != NEX_NIPC_EVENT_CONNECTION_DONE) return;
        self.disconnect();
        inside.set();
        std::int32_t nobody = 1 << 20;
        while (nexNipc_disconnect(&nobody) != 0) std::this_thread::yield();  // Until the process goes quiet.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        leftListener = true;
    });
    constexpr std::uint16_t absent = kUuid + 1;
    if (connected->connect(kUuid) != 0) return 1;
    if (waiting.connect(absent) == 0) return 1;  // The first attempt is short, the second waits.
    waitingConnect = std::async(std::launch::async, [] { return waiting.connect(absent); });
    if (left.connect(kUuid) != 0 || !inside.wait()) return 1;
    waitingConnect.wait_for(std::chrono::milliseconds(200));
    std::exit(0);
}

}  // namespace

int main(int argc, char** argv) {
    const int status = runRole(argc, argv,
                               {{"service", service},
                                {"sharing", sharing},
                                {"abandoning", abandoning},
                                {"stranger", stranger},
                                {"descriptors", descriptors},
                                {"ending", ending}});
    if (status >= 0) return status;
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
