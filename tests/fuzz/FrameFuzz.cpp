// Packets of arbitrary bytes and descriptors, as they are taken from a socket and looked at as shares.
#include <unistd.h>

#include <cerrno>

#include "FuzzInput.h"
#include "RawPeer.h"
#include "linux/PacketBatch.h"
#include "linux/ShareFrame.h"

using namespace nexnipc;

namespace {

void look(Packet& frame) {
    require(frame.payload != nullptr, "a frame has a place");
    volatile char sum = 0;
    for (std::size_t i = 0; !frame.outOfLine() && i < frame.header.length; ++i) {
        sum = static_cast<char>(sum + frame.payload[i]);  // All of it can be read,
        frame.payload[i] = 'w';                           // and written.
    }
    if (frame.header.length > kMetadataLimit) return;
    IncomingShare share(frame);
    const ShareFdMsg& message = *share.message();
    require((message.fdCount == 1) == (message.fds != nullptr), "one descriptor or none");
    require(message.metadata == nullptr || message.metadataSize >= sizeof(ShareFdMetadata), "metadata is whole");
}

// Many at once, or one into memory of the caller's.
int receive(const PacketSocket& socket, bool many) {
    static PacketBatch batch;
    if (many) {
        if (const int status = batch.receive(socket, Wait::No)) return status;
        while (Packet* const frame = batch.next()) look(*frame);
        return batch.status();
    }
    FrameHeader header;
    Fd descriptor;
    std::string payload(64, '\0');
    const int length = socket.receiveInto(header, payload.data(), payload.size(), descriptor, Wait::No);
    require(length <= static_cast<int>(payload.size()), "no more than there is room for");
    return length < 0 ? length : 0;
}

}  // namespace

// Each packet: number of descriptors and way to receive it, length, bytes.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzInput input(data, size);
    auto [ours, theirs] = RawPeer::pair();
    const PacketSocket socket(Fd(dup(theirs.fd())));
    bool many = true;
    for (unsigned packets = 0; !input.empty(); ++packets) {
        const std::uint8_t choice = input.byte();
        many = (choice & 4U) != 0;
        const std::vector<int> descriptors(choice & 3U, STDIN_FILENO);
        ours.send(input.bytes(input.number()), descriptors);
        if ((choice & 8U) == 0) receive(socket, many);
    }
    ours = RawPeer();
    for (int status = 0; status != -ECONNRESET;) {
        status = receive(socket, true);
        require(status != -EAGAIN, "the end comes");
    }
    return 0;
}
