// Packets of several frames: what must not be in them, and that putting frames together costs neither order nor time.
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>
#include <tuple>

#include "PlatformTest.h"
#include "RawPeer.h"

using namespace nexnipc;

namespace {

std::string padded(std::string frames) {
    frames.resize(aligned(frames.size()));
    return frames;
}

std::string request(const std::string& text) {
    return bytesOf(header(FrameType::AsyncRequest, kRequest, static_cast<std::uint32_t>(text.size()))) + text;
}

std::string event(const std::string& text) {
    return bytesOf(header(FrameType::Callback, kEvent, static_cast<std::uint32_t>(text.size()))) + text;
}

// The payloads that arrive, of however many packets, until there are `count`. `largest` is that of those.
std::vector<std::string> payloads(const RawPeer& peer, std::size_t count, std::size_t* packets = nullptr,
                                  std::size_t* largest = nullptr) {
    std::vector<std::string> all;
    std::string bytes;
    RawPeer descriptor;
    while (all.size() < count && peer.receive(bytes, descriptor)) {
        if (packets != nullptr) ++*packets;
        if (largest != nullptr) *largest = std::max(*largest, bytes.size());
        for (RawFrame& frame : framesOf(bytes)) {
            // An offer that is not taken up.
            if (frame.header.type != FrameType::Buffers) all.push_back(std::move(frame.payload));
        }
    }
    return all;
}

// Reads one packet while somebody waits for room, and says that there is none.
std::atomic<const RawPeer*> slowReader{nullptr};
std::atomic<unsigned> waits{0};

// What the listener does in each of five calls that come in one packet: each sends "a"; the second has another thread
// send "b" as well; the fourth first waits until all that has arrived; the last ends the handle.
template <typename Send>
void react(Endpoint& self, const Message& message, const Signal& seen, const Send& send) {
    if (message.data == "3") {
        EXPECT_TRUE(seen.wait());
    }
    EXPECT_EQ(send("a"), 0);
    if (message.data == "1") std::thread([&] { EXPECT_EQ(send("b"), 0); }).join();
    if (message.data == "4") {
        std::int32_t handle = self.handle;
        EXPECT_EQ(nexNipc_disconnect(&handle), 0);
    }
}

const std::vector<std::string> kBeforeTheWait{"a", "a", "b", "a"};
const std::vector<std::string> kAfterTheWait{"a", "a"};

template <typename Frame>
std::string sixCalls(const Frame& frame) {
    std::string packet;
    for (const char* number : {"0", "1", "2", "3", "4"}) packet += padded(frame(number));
    return packet + frame("not called");
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int ppoll(pollfd* polled, nfds_t count, const timespec* limit,
                                                            const sigset_t* mask) {
    static const auto real = reinterpret_cast<decltype(&ppoll)>(dlsym(RTLD_NEXT, "ppoll"));
    const RawPeer* const reader = slowReader;
    if (reader == nullptr) return real(polled, count, limit, mask);
    ++waits;
    payloads(*reader, 1);
    return 0;
}

class PackedFramesTest : public PlatformTest {
protected:
    PackedFramesTest() : path_(directory.path + "/" + std::to_string(kUuid) + ".sock") {}

    // Lets the client in, as a service would.
    RawPeer serve(const RawPeer& listener, Endpoint& client) {
        std::future<nex_status_t> status = std::async(std::launch::async, [&] { return client.connect(kUuid); });
        RawPeer peer = listener.accept();
        RawPeer theirs;
        std::tie(control_, theirs) = RawPeer::pair();
        Welcome welcome;
        welcome.version = kVersion;
        EXPECT_TRUE(peer.send(welcomePacket(welcome), {theirs.fd()}));
        EXPECT_EQ(status.get(), 0);
        EXPECT_EQ(payloads(peer, 1).size(), 1U);  // the greeting
        return peer;
    }

    const std::string path_;
    RawPeer control_;
};

TEST_F(PackedFramesTest, APacketThatIsNotMadeOfFramesEndsItsConnection) {
    const std::string good = request("good");
    const struct {
        const char* name;
        std::string rest;
        int descriptors = 0;
    } cases[] = {
        {"a header cut short", std::string(sizeof(FrameHeader) - 1, '\0')},
        {"padding without a frame", ""},
        {"a frame longer than the packet", bytesOf(header(FrameType::AsyncRequest, kRequest, 100)) + "short"},
        {"a length without end", bytesOf(header(FrameType::AsyncRequest, kRequest, 0xFFFFFFFFU))},
        {"bytes behind the last frame", padded(good) + "x"},
        {"a frame that stands alone", bytesOf(header(FrameType::SyncRequest, kRequest, 0, 100, 1, 0))},
        {"a share", bytesOf(header(FrameType::Share, SERVER_SHARE_FD_ID, 0))},
        {"a descriptor", good, 1},
    };
    Endpoint service;
    ASSERT_EQ(service.start(kUuid), 0);
    const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const RawClient peer = letIn(path_, kUuid);
        EXPECT_TRUE(
            peer.main.send(padded(good) + c.rest, std::vector<int>(static_cast<std::size_t>(c.descriptors), null)));
        EXPECT_TRUE(peer.main.isClosed());
    }
    close(null);
    const RawClient peer = letIn(path_, kUuid);
    EXPECT_TRUE(peer.main.send(padded(request("")) + request("last")));
    while (service.next(kRequest).data != "last") {
    }
}

TEST_F(PackedFramesTest, AServiceHoldsBackNothing) {
    Signal seen;
    Endpoint service([&](Endpoint& self, const Message& message, nexNipc_parameter_t&) {
        const auto send = [&](const char* text) { return self.callback(message.peer, kEvent, text); };
        if (message.id == kRequest) react(self, message, seen, send);
    });
    ASSERT_EQ(service.start(kUuid), 0);
    const RawClient peer = letIn(path_, kUuid);
    EXPECT_TRUE(peer.main.send(sixCalls(request)));
    EXPECT_EQ(payloads(peer.main, 4), kBeforeTheWait);
    seen.set();
    EXPECT_EQ(payloads(peer.main, 2), kAfterTheWait);
}

TEST_F(PackedFramesTest, AStreamOfEventsArrivesInOrderToItsEnd) {
    constexpr unsigned kCount = 300;  // Which a socket holds, also one by one: what shares a packet was not queued.
    Endpoint service;
    ASSERT_EQ(service.start(kUuid), 0);
    const RawClient peers[] = {letIn(path_, kUuid), letIn(path_, kUuid)};
    const std::uint16_t ids[] = {service.next(NEX_NIPC_EVENT_CLIENT_CONNECTED).peer,
                                 service.next(NEX_NIPC_EVENT_CLIENT_CONNECTED).peer};
    for (unsigned i = 0; i < kCount; ++i) {
        for (const std::uint16_t id : ids) {
            // Large ones do not join the others.
            const std::string text = std::to_string(i) + std::string(i % 100 == 70 ? 5000 : 0, '.');
            EXPECT_EQ(service.callback(id, kEvent, text), 0);
        }
    }
    for (const RawClient& peer : peers) {
        std::size_t packets = 0;
        const std::vector<std::string> events = payloads(peer.main, kCount, &packets);
#ifndef NIPC_TEST_EMULATOR  // On it, frames take longer than the pauses of a stream.
        EXPECT_LT(packets, kCount) << "none share one";
#endif
        ASSERT_EQ(events.size(), kCount);
        for (unsigned i = 0; i < kCount; ++i) EXPECT_EQ(events[i].substr(0, events[i].find('.')), std::to_string(i));
    }
}

TEST_F(PackedFramesTest, EventsNowAndThenGoAtOnce) {
    const struct {
        const char* name;
        std::size_t subscribers;
        std::vector<std::size_t> lengths;
    } cases[] = {{"to many", 16, {1}}, {"after long ones", 1, {5000, 1}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Endpoint service;
        ASSERT_EQ(service.start(kUuid), 0);
        std::vector<RawClient> peers(c.subscribers);
        std::vector<std::uint16_t> ids;
        for (RawClient& peer : peers) {
            peer = letIn(path_, kUuid);
            ids.push_back(service.next(NEX_NIPC_EVENT_CLIENT_CONNECTED).peer);
        }
        const auto publish = [&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));  // Longer than anything is held back.
            for (const std::uint16_t id : ids) {
                for (const std::size_t length : c.lengths) {
                    EXPECT_EQ(service.callback(id, kEvent, std::string(length, '.')), 0);
                }
            }
            for (std::size_t i = 0; i < peers.size() * c.lengths.size(); ++i) {
                const RawPeer& peer = peers[i / c.lengths.size()].main;
                pollfd arrived{peer.fd(), POLLIN, 0};
                EXPECT_EQ(poll(&arrived, 1, 0), 1);
                payloads(peer, 1);
            }
        };
        // On a thread that has published nothing before.
        std::thread([&] {
            for (unsigned round = 0; round < 50; ++round) publish();
        }).join();
    }
}

TEST_F(PackedFramesTest, AnswersSharePacketsThatStaySmall) {
    constexpr unsigned kCount = 40;
    Endpoint service([&](Endpoint& self, const Message& message, nexNipc_parameter_t&) {
        if (message.id != kRequest) return;
        EXPECT_EQ(self.callback(message.peer, ASYNC_RESPONSE_SUCCESS_ID, std::string(1000, '.'), contextOf(1)), 0);
    });
    ASSERT_EQ(service.start(kUuid), 0);
    const RawClient peer = letIn(path_, kUuid);
    std::string packet;
    for (unsigned i = 0; i < kCount; ++i) packet = padded(packet) + request("");
    EXPECT_TRUE(peer.main.send(packet));
    std::size_t packets = 0;
    std::size_t largest = 0;
    EXPECT_EQ(payloads(peer.main, kCount, &packets, &largest).size(), kCount);
    EXPECT_LT(packets, kCount);
    EXPECT_LE(largest, 8000U) << "the kernel takes fresh pages for it";
}

TEST_F(PackedFramesTest, AClientThatTakesOneAnswerAtATimeIsWaitedForOnce) {
    constexpr unsigned kCount = 60;  // Three times what the socket holds.
    Endpoint service([&](Endpoint& self, const Message& message, nexNipc_parameter_t&) {
        if (message.id != kRequest) return;
        const std::string text = message.data + std::string(16000, '.');
        EXPECT_EQ(self.callback(message.peer, ASYNC_RESPONSE_SUCCESS_ID, text, contextOf(1)), 0);
    });
    ASSERT_EQ(service.start(kUuid), 0);
    const RawClient peer = letIn(path_, kUuid);
    std::string packet;
    for (unsigned i = 0; i < kCount; ++i) packet = padded(packet) + request(std::to_string(i));
    waits = 0;
    slowReader = &peer.main;
    EXPECT_TRUE(peer.main.send(packet));
    for (unsigned i = 0; i < kCount; ++i) service.next(kRequest);
    slowReader = nullptr;
    EXPECT_EQ(waits, 1U);
    const std::vector<std::string> answers = payloads(peer.main, kCount - 1);
    ASSERT_EQ(answers.size(), kCount - 1);
    for (unsigned i = 1; i < kCount; ++i) EXPECT_EQ(answers[i - 1].find(std::to_string(i) + "."), 0U);
}

TEST_F(PackedFramesTest, AnswersToOnePacketDoNotOutgrowTheirQueue) {
    constexpr unsigned kCount = 300;  // Together more than twice what is queued for one client.
    std::atomic<unsigned> lost{0};
    Endpoint service([&](Endpoint& self, const Message& message, nexNipc_parameter_t& parameter) {
        if (message.type == SYNC_FUNCTION) echo(parameter);
        if (message.type != ASYNC_FUNCTION) return;
        const std::string text = message.data + std::string(16000, '.');
        if (self.callback(message.peer, ASYNC_RESPONSE_SUCCESS_ID, text, contextOf(1)) == -ENOBUFS) ++lost;
    });
    Endpoint other;
    ASSERT_EQ(service.start(kUuid), 0);
    ASSERT_EQ(other.connect(kUuid), 0);
    std::string packet;
    for (unsigned i = 0; i < kCount; ++i) packet = padded(packet) + request(std::to_string(i));
    for (const bool reads : {true, false}) {
        RawClient peer = letIn(path_, kUuid);
        EXPECT_TRUE(peer.main.send(packet));
        while (service.count(kRequest) == 0) other.call(kEvent, "");
        EXPECT_EQ(other.call(kEvent, "still served").response, "still served");
        if (reads) {
            const std::vector<std::string> answers = payloads(peer.main, kCount);
            ASSERT_EQ(answers.size(), kCount);
            for (unsigned i = 0; i < kCount; ++i) EXPECT_EQ(answers[i].find(std::to_string(i) + "."), 0U);
        }
        EXPECT_EQ(lost, 0U);
        peer = RawClient();  // Whose answers may be lost from here on.
        for (unsigned i = 0; i < kCount; ++i) EXPECT_EQ(service.next(kRequest).data, std::to_string(i));
    }
}

TEST_F(PackedFramesTest, AClientHoldsBackNothing) {
    const RawPeer listener = RawPeer::listenAt(path_);
    Signal seen;
    Endpoint client([&](Endpoint& self, const Message& message, nexNipc_parameter_t&) {
        const auto send = [&](const char* text) { return self.request(kRequest, text); };
        if (message.id == kEvent) react(self, message, seen, send);
    });
    const RawPeer peer = serve(listener, client);
    EXPECT_TRUE(peer.send(sixCalls(event)));
    EXPECT_EQ(payloads(peer, 4), kBeforeTheWait);
    seen.set();
    EXPECT_EQ(payloads(peer, 2), kAfterTheWait);
}

TEST_F(PackedFramesTest, AListenerSendsOnToAServiceThatIsBusySending) {
    constexpr unsigned kCount = 60;
    const RawPeer listener = RawPeer::listenAt(path_);
    Endpoint client([](Endpoint& self, const Message& message, nexNipc_parameter_t&) {
        const std::string text = message.data + std::string(16000, '.');
        EXPECT_EQ(message.id == kEvent ? self.request(kRequest, text) : 0, 0);
    });
    const RawPeer peer = serve(listener, client);
    for (unsigned i = 0; i < kCount; ++i) EXPECT_TRUE(peer.send(event(std::to_string(i))));
    for (unsigned i = 0; i < kCount; ++i) EXPECT_EQ(client.next(kEvent).data, std::to_string(i));
    const std::vector<std::string> requests = payloads(peer, kCount);
    ASSERT_EQ(requests.size(), kCount);
    for (unsigned i = 0; i < kCount; ++i) EXPECT_EQ(requests[i].substr(0, requests[i].find('.')), std::to_string(i));
}
