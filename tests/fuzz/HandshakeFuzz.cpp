// Arbitrary packets in place of a greeting, to a service and to a client.
#include <sys/socket.h>
#include <unistd.h>

#include <future>

#include "Endpoint.h"
#include "FuzzInput.h"
#include "Process.h"
#include "RawPeer.h"

using namespace nexnipc;

namespace {

constexpr std::uint16_t kService = 41401;
constexpr std::uint16_t kClient = 41402;

struct Ends {
    Ends() { require(service.start(kService) == 0, "the service starts"); }
    std::string pathOf(std::uint16_t uuid) const { return directory.path + "/" + std::to_string(uuid) + ".sock"; }

    const nipctest::ServiceDirectory directory;
    Endpoint service;
    const RawPeer listener = RawPeer::listenAt(pathOf(kClient));
};

// Each packet: kind, what of a good greeting it begins with, how much of the input follows.
void sendAll(FuzzInput& input, const RawPeer& peer, const std::string& good) {
    auto [ours, theirs] = RawPeer::pair();
    while (!input.empty()) {
        const std::uint8_t choice = input.byte();
        const std::vector<int> descriptors(choice & 3U, (choice & 4U) != 0 ? STDIN_FILENO : theirs.fd());
        std::string bytes = good.substr(0, input.byte() % (good.size() + 1));
        bytes += input.bytes(input.byte());
        peer.send(std::move(bytes), descriptors);
    }
}

void greetService(Ends& ends, FuzzInput& input) {
    const RawPeer peer = RawPeer::connectTo(ends.pathOf(kService));
    sendAll(input, peer, helloPacket(hello(kService)));
    shutdown(peer.fd(), SHUT_WR);
    require(peer.isClosed(), "the service ends the connection");
    ends.service.forget();
}

void greetClient(Ends& ends, FuzzInput& input) {
    Endpoint client;
    auto connected = std::async(std::launch::async, [&client] { return client.connect(kClient); });
    Welcome welcome;
    welcome.version = kVersion;
    {
        const RawPeer peer = ends.listener.accept();
        sendAll(input, peer, welcomePacket(welcome));
    }
    require(connected.get() <= 0, "a status is 0 or negative");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Ends ends;
    FuzzInput input(data, size);
    if (input.byte() % 2 == 0)
        greetService(ends, input);
    else
        greetClient(ends, input);
    return 0;
}
