#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>

#include "nex_nipc.h"

/// One listener call as a test sees it.
struct Message {
    std::uint16_t id = 0;  // The event, for type EVENT, else the function.
    std::uint32_t type = INVALID;
    std::uint16_t peer = 0;
    std::int32_t status = 0;
    void* context = nullptr;
    std::string data;  // For a share: what the region holds.
    // Of a share.
    bool hasDescriptors = false;
    bool hasMetadata = false;
    int descriptor = -1;  // Already closed.
    // Of the call.
    pid_t thread = 0;
    std::int32_t handle = -1;  // As it stood then.
};

struct Answer {
    nex_status_t transport = 0;
    std::int32_t status = 1;
    std::string response;
};

/// A service or a client of the platform: keeps what its listener is told until a test asks for it.
class Endpoint {
public:
    /// Runs in each listener call, before the message is kept. Without one, synchronous requests are echoed.
    using Handler = std::function<void(Endpoint& self, const Message& message, nexNipc_parameter_t& parameter)>;

    explicit Endpoint(Handler handler = {}) : handler_(std::move(handler)) {}
    ~Endpoint() { disconnect(); }
    Endpoint(const Endpoint&) = delete;
    Endpoint& operator=(const Endpoint&) = delete;

    nex_status_t start(std::uint16_t uuid);
    nex_status_t connect(std::uint16_t uuid);
    nex_status_t disconnect();

    Answer call(std::uint16_t function, const std::string& payload, std::uint32_t capacity = 16384) const;
    nex_status_t request(std::uint16_t function, const std::string& payload, void* context = nullptr) const;
    nex_status_t callback(std::uint16_t client, std::uint16_t function, const std::string& payload,
                          void* context = nullptr) const;
    /// To `client`, or to the service when that is 0. `metadataSize` may be short, `descriptor` below 0 for none.
    nex_status_t share(std::uint16_t client, int descriptor, const ShareFdMetadata& metadata,
                       std::uint32_t metadataSize = sizeof(ShareFdMetadata)) const;

    /// Takes the first kept message of that id, waiting for it; a failure of the test when none comes.
    Message next(std::uint16_t id);
    std::size_t count(std::uint16_t id);
    /// What nobody has asked for.
    void forget();

    std::int32_t handle = -1;

private:
    static int listen(nexNipc_parameter_t* parameter);

    const Handler handler_;
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::deque<Message> messages_;
};

void echo(nexNipc_parameter_t& parameter);
/// Puts `response` into a synchronous request's answer.
void answer(nexNipc_parameter_t& parameter, const std::string& response);

void* contextOf(std::uintptr_t value);

/// A shareable region that holds `text`.
int regionOf(const std::string& text);
