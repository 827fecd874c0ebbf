#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <future>
#include <optional>
#include <stdexcept>
#include <thread>

#include "Endpoint.h"
#include "Process.h"
#include "RawPeer.h"
#include "linux/SharedBuffers.h"

constexpr std::uint16_t kUuid = 41201;    // The service of a test.
constexpr std::uint16_t kRequest = 2000;  // Functions of no special meaning.
constexpr std::uint16_t kEvent = 3000;
constexpr std::uint16_t kNever = 2001;  // A synchronous request that the service role never answers.

class PlatformTest : public testing::Test {
protected:
    RawClient letIn() const { return ::letIn(path, kUuid); }
    /// Answers requests with what they say, filled to that length.
    Endpoint::Handler answering(std::size_t length);

    std::atomic<unsigned> lost{0};  // Answers that found no room.
    const nipctest::ServiceDirectory directory;
    const std::string path = directory.path + "/" + std::to_string(kUuid) + ".sock";
};

/// Offered from the beginning, else the test ends.
class Service : public Endpoint {
public:
    explicit Service(Handler handler = {}, std::uint16_t uuid = kUuid) : Endpoint(std::move(handler)) {
        if (start(uuid) != 0) throw std::runtime_error("the service does not start");
    }
    /// The next client that has come, or gone.
    std::uint16_t arrived() { return next(NEX_NIPC_EVENT_CLIENT_CONNECTED).peer; }
    std::uint16_t left() { return next(NEX_NIPC_EVENT_CLIENT_DISCONNECTED).peer; }
    /// How many messages of 16000 bytes go to a client that does not read them. What all queues may hold leaves room
    /// for hardly anything beside those.
    std::size_t fill(std::uint16_t client, std::uint16_t function = kEvent, void* context = nullptr) const;
};

/// Connected from the beginning, else the test ends.
class Client : public Endpoint {
public:
    explicit Client(Handler handler = {}) : Endpoint(std::move(handler)) {
        if (connect(kUuid) != 0) throw std::runtime_error("the client does not connect");
    }
};

/// A service without the platform, with one client at a time.
class RawService {
public:
    explicit RawService(const std::string& path) : listener_(RawPeer::listenAt(path)) {}

    /// What the client gets to whom it says that.
    nex_status_t greet(Endpoint& client, const std::string& bytes, const std::vector<int>& descriptors);
    void letIn(Endpoint& client);

    RawPeer main, control;

private:
    const RawPeer listener_;
};

/// Offers these buffers, once they are made, until they are taken.
void offerBuffers(const RawClient& client, nexnipc::SharedBuffers& buffers);

/// `start`, a dot, and what tells it from others, to that length at least.
std::string filled(const std::string& start, std::size_t length);
/// A packet of requests with the numbers from `first` on.
std::string requests(unsigned first, unsigned count);
/// As many such texts as that, numbered from `first` on.
void expectNumbered(const std::vector<RawFrame>& frames, unsigned first, unsigned count, std::size_t length = 0);

/// Lets this process have only so many descriptors more, or as many as usual.
void limitDescriptors(std::optional<rlim_t> spare);

/// Something that happens once, in one thread, and is waited for in others.
class Signal {
public:
    void set() { promise_.set_value(); }
    bool wait() const { return future_.wait_for(nipctest::kPatience) == std::future_status::ready; }

private:
    std::promise<void> promise_;
    const std::shared_future<void> future_{promise_.get_future()};
};

/// Polls until `condition` holds; what the kernel shows of a process sends no event.
template <class Condition>
bool eventually(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + nipctest::kPatience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}
