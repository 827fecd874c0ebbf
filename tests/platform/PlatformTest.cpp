#include "PlatformTest.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <tuple>

using namespace nexnipc;

std::size_t Service::fill(std::uint16_t client, std::uint16_t function, void* context) const {
    std::size_t sent = 0;
    nex_status_t status = 0;
    while (sent < 1000 && (status = callback(client, function, std::string(16000, 'p'), context)) == 0) ++sent;
    EXPECT_EQ(status, -ENOBUFS);
    return sent;
}

nex_status_t RawService::greet(Endpoint& client, const std::string& bytes, const std::vector<int>& descriptors) {
    std::future<nex_status_t> status = std::async(std::launch::async, [&] { return client.connect(kUuid); });
    main = listener_.accept();
    if (!bytes.empty() || !descriptors.empty()) main.send(bytes, descriptors);
    return status.get();
}

void RawService::letIn(Endpoint& client) {
    RawPeer theirs;
    std::tie(control, theirs) = RawPeer::pair();
    EXPECT_EQ(greet(client, welcomePacket(usualWelcome()), {theirs.fd()}), 0);
    main.receiveDescriptor();  // Its greeting.
}

void offerBuffers(const RawClient& client, SharedBuffers& buffers) {
    Fd region;
    EXPECT_EQ(SharedBuffers::make(region), 0);
    EXPECT_EQ(buffers.map(region.get()), 0);
    EXPECT_TRUE(client.main.send(packet(header(FrameType::Buffers, 0, 0), 0), {region.get()}));
    EXPECT_TRUE(eventually([&] { return buffers.isReady(); }));
}

std::string filled(const std::string& start, std::size_t length) {
    std::string text = start + '.';
    text.resize(std::max(length, text.size()), start.empty() ? '.' : start.back());
    return text;
}

std::string requests(unsigned first, unsigned count) {
    std::vector<std::string> texts(count);
    for (std::string& text : texts) text = std::to_string(first++);
    return packetOf(FrameType::AsyncRequest, kRequest, texts);
}

Endpoint::Handler PlatformTest::answering(std::size_t length) {
    return [this, length](Endpoint& self, const Message& message, nexNipc_parameter_t& parameter) {
        if (message.type == SYNC_FUNCTION) echo(parameter);
        if (message.type != ASYNC_FUNCTION) return;
        const std::string text = filled(message.data, length);
        if (self.callback(message.peer, ASYNC_RESPONSE_SUCCESS_ID, text, contextOf(1)) == -ENOBUFS) ++lost;
    };
}

void expectNumbered(const std::vector<RawFrame>& frames, unsigned first, unsigned count, std::size_t length) {
    EXPECT_EQ(frames.size(), count);
    for (const RawFrame& frame : frames) {
        EXPECT_TRUE(frame.payload == filled(std::to_string(first), std::max(length, frame.payload.size()))) << first;
        ++first;
    }
}

void limitDescriptors(std::optional<rlim_t> spare) {
    static rlimit usual{};
    if (usual.rlim_cur == 0) getrlimit(RLIMIT_NOFILE, &usual);
    const Fd free(dup(STDIN_FILENO));  // The lowest number that is.
    const rlimit limit{spare ? static_cast<rlim_t>(free.get()) + *spare : usual.rlim_cur, usual.rlim_max};
    setrlimit(RLIMIT_NOFILE, &limit);
}
