// The limit for small messages: packet sockets, one thread on each side, blocking calls.
#include <poll.h>

#include <thread>
#include <vector>

#include "RawSocket.h"
#include "Subject.h"

namespace bench {
namespace {

constexpr std::size_t largestPacket = 128 << 10;

class RawPacket final : public Subject {
public:
    explicit RawPacket(Options given) : options(std::move(given)) {}

    const char* unsupported() const override {
        if (options.size > largestPacket) return "the kernel refuses packets this large";
        return options.callers > 1 || options.services > 1 || options.names > 0 ? "connectors only" : nullptr;
    }

    void startService() override { listener = RawSocket::listenIn(options.directory); }

    void answer() override {
        for (;;) std::thread([this, s = listener.accept()] { answerOne(s); }).detach();
    }

    void awaitSubscribers() override {
        while (static_cast<int>(sockets.size()) < options.subscribers) sockets.push_back(listener.accept());
    }

    void publish(const char* data, std::size_t size) override {
        for (const RawSocket& s : sockets) s.send(data, size);
    }

    void connect() override { connectIdle(1); }

    void connectIdle(int connections) override {
        for (int i = 0; i < connections; ++i) sockets.push_back(RawSocket::connectIn(options.directory));
    }

    std::size_t call(int, long, const char* data, std::size_t size) override {
        sockets[0].send(data, size);
        return receive(sockets[0]);
    }

    void pipeline(long count) override {
        const std::vector<char> request(options.size, 'q');
        const RawSocket& s = sockets[0];
        for (long sent = 0, answered = 0; answered < count;) {
            while (sent < count && sent - answered < options.window &&
                   s.send(request.data(), request.size(), MSG_DONTWAIT))
                ++sent;
            for (int flags = 0; answered < sent && s.receive(buffer.data(), buffer.size(), flags) >= 0; ++answered)
                flags = MSG_DONTWAIT;
        }
    }

    void subscribe(OnEvent onEvent) override {
        connectIdle(options.subscribers);
        std::thread([this, onEvent] { receiveEvents(onEvent); }).detach();
    }

private:
    std::size_t receive(const RawSocket& s) {
        return static_cast<std::size_t>(s.receive(buffer.data(), buffer.size()));
    }

    void answerOne(const RawSocket& s) const {
        std::vector<char> request(largestPacket);
        for (;;) {
            const ssize_t n = s.receive(request.data(), request.size());
            if (n == 0) return;
            s.send(request.data(), options.is("W4") ? 0 : static_cast<std::size_t>(n));
        }
    }

    void receiveEvents(const OnEvent& onEvent) {
        if (sockets.size() == 1)
            for (;;) onEvent(0, buffer.data(), receive(sockets[0]));
        std::vector<pollfd> polled;
        for (const RawSocket& s : sockets) polled.push_back({s.get(), POLLIN, 0});
        for (;;) {
            poll(polled.data(), polled.size(), -1);
            for (std::size_t i = 0; i < polled.size(); ++i)
                for (ssize_t n = 0; (polled[i].revents & POLLIN) != 0 && n >= 0;) {
                    n = sockets[i].receive(buffer.data(), buffer.size(), MSG_DONTWAIT);
                    if (n >= 0) onEvent(static_cast<int>(i), buffer.data(), static_cast<std::size_t>(n));
                }
        }
    }

    const Options options;
    RawSocket listener;
    std::vector<RawSocket> sockets;
    std::vector<char> buffer = std::vector<char>(largestPacket);
};

}  // namespace

std::unique_ptr<Subject> makeRawPacketSubject(const Options& options) { return std::make_unique<RawPacket>(options); }

}  // namespace bench
