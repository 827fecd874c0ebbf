#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "linux/Frame.h"

/// One end of a socket of the platform, without the platform. Sending never waits; receiving does, for kPatience.
class RawPeer {
public:
    RawPeer() = default;
    explicit RawPeer(int descriptor) : socket_(descriptor) {}
    RawPeer(RawPeer&& other) noexcept : socket_(std::exchange(other.socket_, -1)) {}
    RawPeer& operator=(RawPeer&& other) noexcept {
        std::swap(socket_, other.socket_);
        return *this;
    }
    ~RawPeer();

    /// Not valid when nobody listens there, or the backlog is full.
    static RawPeer connectTo(const std::string& path);
    static RawPeer listenAt(const std::string& path);
    static std::pair<RawPeer, RawPeer> pair();
    RawPeer accept() const;

    bool send(std::string bytes, const std::vector<int>& descriptors = {}) const;
    /// The next packet: its bytes, and the first of its descriptors or none. False at the end.
    bool receive(std::string& bytes, RawPeer& descriptor) const;
    RawPeer receiveDescriptor() const;
    /// Whether the other side closes, whatever it says before.
    bool isClosed() const;

    bool valid() const { return socket_ >= 0; }
    int fd() const { return socket_; }

private:
    bool readable() const;

    int socket_ = -1;
};

nexnipc::FrameHeader header(nexnipc::FrameType type, std::uint16_t function, std::uint32_t length,
                            std::uint64_t context = 0, std::uint32_t sequence = 0, std::int32_t status = 0);

template <class Record>
std::string bytesOf(const Record& record) {
    return {reinterpret_cast<const char*>(&record), sizeof record};
}

std::string packet(const nexnipc::FrameHeader& frame, std::size_t payload);
nexnipc::Hello hello(std::uint16_t uuid);
struct RawFrame {
    nexnipc::FrameHeader header;
    std::string payload;  // That stands behind it.
};
/// The packet of such frames, one for each payload.
std::string packetOf(nexnipc::FrameType type, std::uint16_t function, const std::vector<std::string>& payloads);
/// What a peer says, beside offering buffers.
struct Received {
    std::vector<RawFrame> frames;
    std::size_t packets = 0;
    std::size_t largest = 0;  // Of the packets.
    RawPeer descriptor;       // The last that came.
};
/// Receives until there are so many frames.
Received receiveFrames(const RawPeer& peer, std::size_t count);
std::string helloPacket(const nexnipc::Hello& greeting);
nexnipc::Welcome usualWelcome();
std::string welcomePacket(const nexnipc::Welcome& welcome);

/// A client that has been let in; its control socket is not valid when it was refused.
struct RawClient {
    RawPeer main;
    RawPeer control;
};
RawClient letIn(const std::string& path, std::uint16_t uuid);

/// What no peer may send, and loses its connection by.
struct Violation {
    const char* name;
    nexnipc::FrameHeader frame;
    std::size_t payload;
    int descriptors = 0;
    bool onControl = false;

    void commit(const RawPeer& main, const RawPeer& control, int descriptor) const;
    bool needsChannel() const { return frame.type == nexnipc::FrameType::SyncRequest && frame.status == 0; }
};
extern const std::vector<Violation> kToService;
extern const std::vector<Violation> kToClient;

struct Greeting {
    const char* name;
    std::string bytes;
    int descriptors;
};
/// What lets nobody in.
std::vector<Greeting> badGreetings(std::uint16_t uuid);
