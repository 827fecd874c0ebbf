#include "Handshake.h"

#include <poll.h>

#include <cerrno>
#include <chrono>

#include "Settings.h"

namespace nexnipc {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kHandshakeLimit(2);

int awaitReadable(const PacketSocket& socket, Clock::time_point deadline) {
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) return -ETIMEDOUT;
        pollfd ready{socket.fd(), POLLIN, 0};
        const int count = ::poll(&ready, 1, static_cast<int>(left));
        if (count > 0) return 0;
        if (count < 0 && errno != EINTR) return -errno;
    }
}

}  // namespace

int shakeHands(const PacketSocket& socket, std::uint16_t uuid, std::uint16_t flags, Greeting& greeting) {
    if (const int status = identifyPeer(socket.fd(), trustedGroup(), greeting.peer)) return status;
    Hello hello;
    hello.uuid = uuid;
    hello.flags = flags;
    FrameHeader header;
    header.type = FrameType::Hello;
    header.length = sizeof(hello);
    // A service that refuses whom it sees answers and closes without reading: the answer outlives the reset.
    const int sent = socket.send(header, &hello, -1, Wait::No);
    if (sent != 0 && sent != -ECONNRESET) return sent;
    if (const int status = awaitReadable(socket, Clock::now() + kHandshakeLimit)) return status;
    Welcome& welcome = greeting.welcome;
    int length = socket.receiveInto(header, &welcome, sizeof(welcome), greeting.control);
    if (length == -ECONNRESET) {
        // That was an empty packet, unless the answer is there.
        const int again = socket.receiveInto(header, &welcome, sizeof(welcome), greeting.control, Wait::No);
        if (again != -EAGAIN) length = again;
    }
    if (length < 0) return length;
    if (length != sizeof(welcome) || header.type != FrameType::Welcome || welcome.magic != kMagic) return -EPROTO;
    if (header.status != 0) return header.status < 0 ? header.status : -EPROTO;
    return welcome.version == kVersion ? 0 : -EPROTO;
}

}  // namespace nexnipc
