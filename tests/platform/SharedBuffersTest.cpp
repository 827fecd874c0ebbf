// Payloads that streams leave in shared memory: what arrives, what a receiver without such memory gets, and what nobody
// may do with it.
#include <cstring>
#include <fstream>

#include "PlatformTest.h"
#include "linux/SealedMemory.h"

using namespace nexnipc;

namespace {

std::size_t mappedBuffers() {
    std::ifstream maps("/proc/self/maps");
    std::size_t count = 0;
    for (std::string line; std::getline(maps, line);) count += line.find("nipc-buffers") != std::string::npos;
    return count;
}

}  // namespace

using SharedBuffersTest = PlatformTest;

TEST_F(SharedBuffersTest, AStreamArrivesInOrderThroughThem) {
    constexpr std::size_t kTotal = 3000;
    const auto text = [](std::size_t number) { return filled(std::to_string(number), 2000 + number * 7919 % 14384); };
    const Service service([](Endpoint& self, const Message& message, nexNipc_parameter_t&) {
        if (message.id != kRequest) return;
        EXPECT_EQ(self.callback(message.peer, ASYNC_RESPONSE_SUCCESS_ID, message.data, message.context), 0);
    });
    std::size_t sent = 0;
    std::size_t arrived = 0;
    Signal begun, done;
    const auto send = [&](Endpoint& client) {
        ++sent;
        EXPECT_EQ(client.request(kRequest, text(sent), contextOf(sent)), 0);
    };
    Client client([&](Endpoint& self, const Message& message, nexNipc_parameter_t&) {
        if (message.id != ASYNC_RESPONSE_SUCCESS_ID) return;
        if (++arrived == 1) begun.wait();
        EXPECT_EQ(message.context, contextOf(arrived));
        EXPECT_TRUE(message.data == text(arrived));
        if (sent < kTotal) send(self);
        if (arrived == kTotal) done.set();
    });
    for (unsigned i = 0; i < 40; ++i) send(client);
    begun.set();
    EXPECT_TRUE(done.wait());
    EXPECT_EQ(mappedBuffers(), 4U) << "both ends of both directions";
    client.disconnect();
    EXPECT_TRUE(eventually([] { return mappedBuffers() == 0; }));
}

TEST_F(SharedBuffersTest, AreUsedWhenTheReceiverIsReadyAndAsFarAsItReleasesThem) {
    const Service service(answering(5000));
    const RawClient peer = letIn();
    unsigned next = 0;
    RawPeer region;
    const auto ask = [&](unsigned count) {
        EXPECT_TRUE(peer.main.send(requests(next, count)));
        next += count;
        Received all = receiveFrames(peer.main, count);
        EXPECT_EQ(all.frames.size(), count);
        if (all.descriptor.valid()) region = std::move(all.descriptor);
        return all.frames;
    };
    while (!region.valid()) {
        ASSERT_LT(next, 1000U) << "never offered";
        for (const RawFrame& answer : ask(20)) EXPECT_EQ(answer.header.status, 0);
    }
    for (const RawFrame& answer : ask(20)) EXPECT_EQ(answer.header.status, 0) << "not ready";
    SharedBuffers buffers;
    ASSERT_EQ(buffers.map(region.fd()), 0);
    buffers.setReady();
    for (unsigned round = 0; round < 3; ++round) {
        unsigned buffered = 0;
        const unsigned first = next;
        std::vector<RawFrame> all = ask(80);
        for (RawFrame& frame : all) {
            if (frame.header.status == 0) continue;
            ++buffered;
            frame.payload.assign(buffers.at(static_cast<unsigned>(frame.header.status - 1)), frame.header.length);
        }
        expectNumbered(all, first, 80, 5000);
        EXPECT_EQ(buffered, SharedBuffers::kCount);
        for (unsigned number = 0; number < SharedBuffers::kCount; ++number) buffers.release(number);
    }
}

TEST_F(SharedBuffersTest, AreForAFewPeersAtATime) {
    ASSERT_TRUE(eventually([] { return mappedBuffers() == 0; })) << "of tests before this one";
    Service service(answering(5000));
    const auto isOffered = [&](const RawClient& peer) {
        bool offered = false;
        for (unsigned i = 0; i < 10 && !offered; ++i) {
            EXPECT_TRUE(peer.main.send(requests(0, 20)));
            offered = receiveFrames(peer.main, 20).descriptor.valid();
        }
        return offered;
    };
    std::vector<RawClient> peers(18);
    for (std::size_t i = 0; i < peers.size(); ++i) {
        peers[i] = letIn();
        EXPECT_EQ(isOffered(peers[i]), i < 16);
    }
    peers[0] = RawClient();
    service.left();
    EXPECT_TRUE(eventually([&] { return isOffered(peers[17]); })) << "asked once, refused for ever";

    peers.clear();
    std::vector<SharedBuffers> buffers(66);
    unsigned ready = 0;
    for (SharedBuffers& each : buffers) {
        peers.push_back(letIn());
        Fd region;
        EXPECT_EQ(SharedBuffers::make(region), 0);
        EXPECT_EQ(each.map(region.get()), 0);
        EXPECT_TRUE(peers.back().main.send(packet(header(FrameType::Buffers, 0, 0), 0), {region.get()}));
        EXPECT_TRUE(peers.back().main.send(requests(0, 1)));
        EXPECT_EQ(receiveFrames(peers.back().main, 1).frames.size(), 1U);
        ready += each.isReady() ? 1 : 0;
    }
    EXPECT_EQ(ready, 64U);
}

TEST_F(SharedBuffersTest, AHandlerSeesWhatNobodyChanges) {
    SharedBuffers buffers;
    std::string before, after;
    Service service([&](Endpoint&, const Message& message, nexNipc_parameter_t& parameter) {
        if (message.id != kRequest) return;
        before = message.data;
        std::memset(buffers.at(63), 'X', 5000);
        after.assign(static_cast<const char*>(parameter.data), *parameter.length);
    });
    const RawClient peer = letIn();
    offerBuffers(peer, buffers);
    const std::string text = filled("1", 5000);
    std::memcpy(buffers.at(63), text.data(), text.size());
    EXPECT_TRUE(peer.main.send(packet(header(FrameType::AsyncRequest, kRequest, 5000, 0, 0, 64), 0)));
    service.next(kRequest);
    EXPECT_TRUE(before == text);
    EXPECT_TRUE(after == text);
    EXPECT_EQ(buffers.takeReleased(), std::uint64_t{1} << 63);
}

TEST_F(SharedBuffersTest, AClientWhoseMemoryCannotBeWrittenIsServedWithoutThem) {
    Service service;
    Fd readOnly;
    ASSERT_EQ(makeSealedCopy(std::string(2 << 20, 'x').data(), 2 << 20, readOnly), 0);
    const RawClient peer = letIn();
    EXPECT_TRUE(peer.main.send(packet(header(FrameType::Buffers, 0, 0), 0), {readOnly.get()}));
    EXPECT_TRUE(peer.main.send(requests(0, 1)));
    EXPECT_EQ(service.next(kRequest).data, "0");
}
