// Packets of several frames: what must not be in them, and that putting frames together costs neither order nor time.
#include <dlfcn.h>
#include <poll.h>

#include "PlatformTest.h"

using namespace nexnipc;

namespace {

std::vector<std::string> payloads(const RawPeer& peer, std::size_t count) {
    std::vector<std::string> all;
    for (const RawFrame& frame : receiveFrames(peer, count).frames) all.push_back(frame.payload);
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

const std::vector<std::string> kSixCalls{"0", "1", "2", "3", "4", "not called"};

}  // namespace

extern "C" __attribute__((visibility("default"))) int ppoll(pollfd* polled, nfds_t count, const timespec* limit,
                                                            const sigset_t* mask) {
    static const auto real = reinterpret_cast<decltype(&ppoll)>(dlsym(RTLD_NEXT, "ppoll"));
    const RawPeer* const reader = slowReader;
    if (reader == nullptr) return real(polled, count, limit, mask);
    ++waits;
    receiveFrames(*reader, 1);
    return 0;
}

using PackedFramesTest = PlatformTest;

TEST_F(PackedFramesTest, AServiceHoldsBackNothing) {
    Signal seen;
    const Service service([&](Endpoint& self, const Message& message, nexNipc_parameter_t&) {
        const auto send = [&](const char* text) { return self.callback(message.peer, kEvent, text); };
        if (message.id == kRequest) react(self, message, seen, send);
    });
    const RawClient peer = letIn();
    EXPECT_TRUE(peer.main.send(packetOf(FrameType::AsyncRequest, kRequest, kSixCalls)));
    EXPECT_EQ(payloads(peer.main, 4), kBeforeTheWait);
    seen.set();
    EXPECT_EQ(payloads(peer.main, 2), kAfterTheWait);
}

TEST_F(PackedFramesTest, AStreamOfEventsArrivesInOrderToItsEnd) {
    constexpr unsigned kCount = 300;  // Which a socket holds, also one by one: what shares a packet was not queued.
    Service service;
    const RawClient peers[] = {letIn(), letIn()};
    const std::uint16_t ids[] = {service.arrived(), service.arrived()};
    for (unsigned i = 0; i < kCount; ++i) {
        for (const std::uint16_t id : ids) {
            // Large ones do not join the others.
            EXPECT_EQ(service.callback(id, kEvent, filled(std::to_string(i), i % 100 == 70 ? 5000 : 0)), 0);
        }
    }
    for (const RawClient& peer : peers) {
        const Received events = receiveFrames(peer.main, kCount);
        expectNumbered(events.frames, 0, kCount);
#ifndef NIPC_TEST_EMULATOR  // On it, frames take longer than the pauses of a stream.
        EXPECT_LT(events.packets, kCount) << "none share one";
#endif
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
        Service service;
        std::vector<RawClient> peers(c.subscribers);
        std::vector<std::uint16_t> ids;
        for (RawClient& peer : peers) {
            peer = letIn();
            ids.push_back(service.arrived());
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
                receiveFrames(peer, 1);
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
    const Service service(answering(1000));
    const RawClient peer = letIn();
    EXPECT_TRUE(peer.main.send(packetOf(FrameType::AsyncRequest, kRequest, std::vector<std::string>(kCount))));
    const Received answers = receiveFrames(peer.main, kCount);
    EXPECT_EQ(answers.frames.size(), kCount);
    EXPECT_LT(answers.packets, kCount);
    EXPECT_LE(answers.largest, 8000U) << "the kernel takes fresh pages for it";
}

TEST_F(PackedFramesTest, AClientThatTakesOneAnswerAtATimeIsWaitedForOnce) {
    constexpr unsigned kCount = 60;  // Three times what the socket holds.
    Service service(answering(16000));
    const RawClient peer = letIn();
    waits = 0;
    slowReader = &peer.main;
    EXPECT_TRUE(peer.main.send(requests(0, kCount)));
    for (unsigned i = 0; i < kCount; ++i) service.next(kRequest);
    slowReader = nullptr;
    EXPECT_EQ(waits, 1U);
    expectNumbered(receiveFrames(peer.main, kCount - 1).frames, 1, kCount - 1, 16000);
}

TEST_F(PackedFramesTest, AnswersToOnePacketDoNotOutgrowTheirQueue) {
    constexpr unsigned kCount = 300;  // Together more than twice what is queued for one client.
    Service service(answering(16000));
    const Client other;
    for (const bool reads : {true, false}) {
        RawClient peer = letIn();
        EXPECT_TRUE(peer.main.send(requests(0, kCount)));
        while (service.count(kRequest) == 0) other.call(kEvent, "");
        EXPECT_EQ(other.call(kEvent, "still served").response, "still served");
        if (reads) expectNumbered(receiveFrames(peer.main, kCount).frames, 0, kCount, 16000);
        EXPECT_EQ(lost, 0U);
        peer = RawClient();  // Whose answers may be lost from here on.
        for (unsigned i = 0; i < kCount; ++i) EXPECT_EQ(service.next(kRequest).data, std::to_string(i));
    }
}

TEST_F(PackedFramesTest, AClientHoldsBackNothing) {
    RawService service(path);
    Signal seen;
    Endpoint client([&](Endpoint& self, const Message& message, nexNipc_parameter_t&) {
        const auto send = [&](const char* text) { return self.request(kRequest, text); };
        if (message.id == kEvent) react(self, message, seen, send);
    });
    service.letIn(client);
    EXPECT_TRUE(service.main.send(packetOf(FrameType::Callback, kEvent, kSixCalls)));
    EXPECT_EQ(payloads(service.main, 4), kBeforeTheWait);
    seen.set();
    EXPECT_EQ(payloads(service.main, 2), kAfterTheWait);
}

TEST_F(PackedFramesTest, AListenerSendsOnToAServiceThatIsBusySending) {
    constexpr unsigned kCount = 60;
    RawService service(path);
    Endpoint client([](Endpoint& self, const Message& message, nexNipc_parameter_t&) {
        EXPECT_EQ(message.id == kEvent ? self.request(kRequest, filled(message.data, 16000)) : 0, 0);
    });
    service.letIn(client);
    for (unsigned i = 0; i < kCount; ++i) {
        EXPECT_TRUE(service.main.send(packetOf(FrameType::Callback, kEvent, {std::to_string(i)})));
    }
    for (unsigned i = 0; i < kCount; ++i) EXPECT_EQ(client.next(kEvent).data, std::to_string(i));
    expectNumbered(receiveFrames(service.main, kCount).frames, 0, kCount, 16000);
}
