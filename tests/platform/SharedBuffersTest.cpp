// Payloads that streams leave in shared memory: what arrives, what a receiver without such memory gets, and what nobody
// may do with it.
#include <cstring>
#include <fstream>

#include "PlatformTest.h"
#include "RawPeer.h"
#include "linux/SealedMemory.h"
#include "linux/SharedBuffers.h"

using namespace nexnipc;

namespace {

std::string textOf(std::size_t number, std::size_t length = 5000) {
    std::string text = std::to_string(number) + ".";
    text.resize(length, static_cast<char>('a' + number % 26));
    return text;
}

std::string requests(unsigned first, unsigned count) {
    std::string packet;
    for (unsigned i = first; i < first + count; ++i) {
        const std::string text = std::to_string(i);
        packet.resize(aligned(packet.size()));
        packet += bytesOf(header(FrameType::AsyncRequest, kRequest, static_cast<std::uint32_t>(text.size()))) + text;
    }
    return packet;
}

/// The frames that arrive until there are `count` answers; what is offered meanwhile goes to `region`.
std::vector<RawFrame> answers(const RawPeer& peer, std::size_t count, RawPeer* region = nullptr) {
    std::vector<RawFrame> all;
    std::string bytes;
    RawPeer descriptor;
    while (all.size() < count && peer.receive(bytes, descriptor)) {
        for (RawFrame& frame : framesOf(bytes)) {
            if (frame.header.type != FrameType::Buffers) {
                all.push_back(std::move(frame));
            } else if (region != nullptr) {
                *region = std::move(descriptor);
            }
        }
    }
    return all;
}

std::size_t mappedBuffers() {
    std::ifstream maps("/proc/self/maps");
    std::size_t count = 0;
    for (std::string line; std::getline(maps, line);) count += line.find("nipc-buffers") != std::string::npos;
    return count;
}

}  // namespace

class SharedBuffersTest : public PlatformTest {
protected:
    RawClient letIn() const { return ::letIn(directory.path + "/" + std::to_string(kUuid) + ".sock", kUuid); }

    /// A client that has offered buffers, and been told that they are taken.
    RawClient offering(SharedBuffers& buffers, int& region) const {
        RawClient peer = letIn();
        Fd made;
        EXPECT_EQ(SharedBuffers::make(made), 0);
        EXPECT_EQ(buffers.map(made.get()), 0);
        EXPECT_TRUE(peer.main.send(packet(header(FrameType::Buffers, 0, 0), 0), {made.get()}));
        EXPECT_TRUE(eventually([&] { return buffers.isReady(); }));
        region = made.release();
        return peer;
    }
};

TEST_F(SharedBuffersTest, AStreamArrivesInOrderThroughThem) {
    constexpr std::size_t kTotal = 3000;
    const auto length = [](std::size_t number) { return 2000 + number * 7919 % 14384; };
    Endpoint service([](Endpoint& self, const Message& message, nexNipc_parameter_t&) {
        if (message.id != kRequest) return;
        EXPECT_EQ(self.callback(message.peer, ASYNC_RESPONSE_SUCCESS_ID, message.data, message.context), 0);
    });
    std::size_t sent = 0;
    std::size_t arrived = 0;
    Signal begun, done;
    const auto send = [&](Endpoint& client) {
        ++sent;
        EXPECT_EQ(client.request(kRequest, textOf(sent, length(sent)), contextOf(sent)), 0);
    };
    Endpoint client([&](Endpoint& self, const Message& message, nexNipc_parameter_t&) {
        if (message.id != ASYNC_RESPONSE_SUCCESS_ID) return;
        if (++arrived == 1) begun.wait();
        EXPECT_EQ(message.context, contextOf(arrived));
        EXPECT_TRUE(message.data == textOf(arrived, length(arrived)));
        if (sent < kTotal) send(self);
        if (arrived == kTotal) done.set();
    });
    ASSERT_EQ(service.start(kUuid), 0);
    ASSERT_EQ(client.connect(kUuid), 0);
    for (unsigned i = 0; i < 40; ++i) send(client);
    begun.set();
    EXPECT_TRUE(done.wait());
    EXPECT_EQ(mappedBuffers(), 4U) << "both ends of both directions";
    client.disconnect();
    EXPECT_TRUE(eventually([] { return mappedBuffers() == 0; }));
}

TEST_F(SharedBuffersTest, AreUsedWhenTheReceiverIsReadyAndAsFarAsItReleasesThem) {
    Endpoint service([](Endpoint& self, const Message& message, nexNipc_parameter_t&) {
        if (message.id != kRequest) return;
        const std::string text = textOf(std::stoul(message.data));
        EXPECT_EQ(self.callback(message.peer, ASYNC_RESPONSE_SUCCESS_ID, text, contextOf(1)), 0);
    });
    ASSERT_EQ(service.start(kUuid), 0);
    const RawClient peer = letIn();
    unsigned next = 0;
    RawPeer region;
    const auto ask = [&](unsigned count) {
        EXPECT_TRUE(peer.main.send(requests(next, count)));
        next += count;
        std::vector<RawFrame> all = answers(peer.main, count, &region);
        EXPECT_EQ(all.size(), count);
        return all;
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
        const std::vector<RawFrame> all = ask(80);
        for (unsigned i = 0; i < all.size(); ++i) {
            const auto number = static_cast<unsigned>(all[i].header.status);
            buffered += number > 0 ? 1 : 0;
            EXPECT_TRUE((number > 0 ? std::string(buffers.at(number - 1), 5000) : all[i].payload) == textOf(first + i));
        }
        EXPECT_EQ(buffered, SharedBuffers::kCount);
        for (unsigned number = 0; number < SharedBuffers::kCount; ++number) buffers.release(number);
    }
}

TEST_F(SharedBuffersTest, AreForAFewPeersAtATime) {
    ASSERT_TRUE(eventually([] { return mappedBuffers() == 0; })) << "of tests before this one";
    Endpoint service([](Endpoint& self, const Message& message, nexNipc_parameter_t&) {
        if (message.id == kRequest) self.callback(message.peer, kEvent, textOf(0), contextOf(1));
    });
    ASSERT_EQ(service.start(kUuid), 0);
    const auto isOffered = [&](const RawClient& peer) {
        RawPeer region;
        for (unsigned i = 0; i < 10 && !region.valid(); ++i) {
            EXPECT_TRUE(peer.main.send(requests(0, 20)));
            answers(peer.main, 20, &region);
        }
        return region.valid();
    };
    std::vector<RawClient> peers(18);
    for (std::size_t i = 0; i < peers.size(); ++i) {
        peers[i] = letIn();
        EXPECT_EQ(isOffered(peers[i]), i < 16);
    }
    peers[0] = RawClient();
    service.next(NEX_NIPC_EVENT_CLIENT_DISCONNECTED);
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
        EXPECT_EQ(answers(peers.back().main, 1).size(), 1U);
        ready += each.isReady() ? 1 : 0;
    }
    EXPECT_EQ(ready, 64U);
}

TEST_F(SharedBuffersTest, AHandlerSeesWhatNobodyChanges) {
    SharedBuffers buffers;
    std::string before, after;
    Endpoint service([&](Endpoint&, const Message& message, nexNipc_parameter_t& parameter) {
        if (message.id != kRequest) return;
        before = message.data;
        std::memset(buffers.at(63), 'X', 5000);
        after.assign(static_cast<const char*>(parameter.data), *parameter.length);
    });
    ASSERT_EQ(service.start(kUuid), 0);
    int region = -1;
    const RawClient peer = offering(buffers, region);
    const std::string text = textOf(1);
    std::memcpy(buffers.at(63), text.data(), text.size());
    EXPECT_TRUE(peer.main.send(packet(header(FrameType::AsyncRequest, kRequest, 5000, 0, 0, 64), 0)));
    service.next(kRequest);
    EXPECT_TRUE(before == text);
    EXPECT_TRUE(after == text);
    EXPECT_EQ(buffers.takeReleased(), std::uint64_t{1} << 63);
    close(region);
}

TEST_F(SharedBuffersTest, WhoMisusesThemLosesTheConnection) {
    const struct {
        const char* name;
        std::string bytes;
        bool withRegion = false;
    } cases[] = {
        {"a number too high", packet(header(FrameType::AsyncRequest, kRequest, 5, 0, 0, 65), 0)},
        {"a number below the first", packet(header(FrameType::AsyncRequest, kRequest, 5, 0, 0, -1), 0)},
        {"a payload there and here", packet(header(FrameType::AsyncRequest, kRequest, 5, 0, 0, 1), 5)},
        {"longer than a buffer", packet(header(FrameType::AsyncRequest, kRequest, 16385, 0, 0, 1), 0)},
        {"a length without end", packet(header(FrameType::AsyncRequest, kRequest, 0xFFFFFFFFU, 0, 0, 1), 0)},
        {"with a descriptor", packet(header(FrameType::AsyncRequest, kRequest, 5, 0, 0, 1), 0), true},
        {"offered twice", packet(header(FrameType::Buffers, 0, 0), 0), true},
    };
    Endpoint service;
    ASSERT_EQ(service.start(kUuid), 0);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        SharedBuffers buffers;
        int region = -1;
        const RawClient peer = offering(buffers, region);
        EXPECT_TRUE(peer.main.send(c.bytes, c.withRegion ? std::vector<int>{region} : std::vector<int>{}));
        EXPECT_TRUE(peer.main.isClosed());
        close(region);
    }
    EXPECT_EQ(service.count(kRequest), 0U);
}

TEST_F(SharedBuffersTest, MemoryThatIsNotWhatItHasToBeIsRefused) {
    Endpoint service;
    ASSERT_EQ(service.start(kUuid), 0);
    Fd small, open;
    ASSERT_EQ(makeSealedRegion("small", 100000, small), 0);
    ASSERT_EQ(makeSealedCopy(std::string(2 << 20, 'x').data(), 2 << 20, open), 0);
    const struct {
        const char* name;
        int region;
        bool closed;
    } cases[] = {{"too small", small.get(), true}, {"not writable", open.get(), false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const RawClient peer = letIn();
        const std::string offer = packet(header(FrameType::Buffers, 0, 0), 0);
        EXPECT_TRUE(peer.main.send(offer, {c.region}));
        if (c.closed) {
            EXPECT_TRUE(peer.main.isClosed());
            continue;
        }
        EXPECT_TRUE(peer.main.send(requests(0, 1)));
        EXPECT_EQ(service.next(kRequest).data, "0") << "does without them";
    }
}
