// A life on the platform's own operations: start, connect, calls, events, shares both ways, and the end.
#include <unistd.h>

#include <atomic>
#include <filesystem>

#include "Lives.h"
#include "SystemCalls.h"
#include "cutils/ashmem.h"
#include "nex_nipc.h"

using namespace nipctest;
using namespace std::chrono_literals;

namespace {

constexpr std::uint16_t kUuid = 41401;
constexpr std::uint16_t kRequest = 2000;
constexpr std::uint16_t kAside = 2001;  // from inside a listener
constexpr std::uint16_t kEvent = 3000;
constexpr int kEvents = 90;

/// One end of the platform. Its listener allocates nothing: what runs short is the platform's.
class End {
public:
    ~End() { disconnect(); }
    nex_status_t start() {
        ServerStartRecord record{};
        record.uuid = kUuid;
        record.listener = listen;
        record.userContext = this;
        return call([&] { return nexNipc_start(&handle, &record); });
    }
    nex_status_t connect() {
        ClientConnectRecord record{};
        record.uuid = kUuid;
        record.listener = listen;
        record.userContext = this;
        return call([&] { return nexNipc_connect(&handle, &record); });
    }
    void disconnect() {
        if (handle >= 0) call([&] { return nexNipc_disconnect(&handle); });
        handle = -1;
    }
    // 1 when the service said that it failed, 3 when the answer is another's or damaged.
    nex_status_t sync(std::uint32_t size) {
        const std::string request(size, 'r');
        std::string response(size, '\0');
        SyncRpcRecord record{kRequest, 0, request.data(), size, response.data(), size, 1};
        const nex_status_t status = call([&] { return nexNipc_rpcSync(handle, &record); });
        if (status != 0 || record.status != 0) return status != 0 ? status : 1;
        return record.responseLength == size && response == request ? 0 : 3;
    }
    nex_status_t request(std::uint16_t id, std::uint32_t size) {
        static const std::string data(5000, 'r');
        AsyncRpcRecord record{};
        record.functionId = record.functionIdAgain = id;
        record.payload = data.data();
        record.length = size;
        return call([&] { return nexNipc_rpcAsync(handle, &record); });
    }
    nex_status_t callback(std::uint16_t to, std::uint16_t id, std::uint32_t size) {
        const std::string data(size, 'e');
        CallbackRecord record{};
        record.functionId = id;
        record.payload = data.data();
        record.length = size;
        return call([&] { return nexNipc_callback(handle, to, &record); });
    }
    // A region of a page, to a client or, with 0, to the service.
    nex_status_t share(std::uint16_t to) {
        std::int32_t region = call([] { return ashmem_create_region("fault", 4096); });
        if (region < 0) return region;
        ShareFdMetadata metadata{4096, kRequest, 0};
        ShareFdMsg message{1, sizeof(metadata), &region, &metadata, 0};
        const nex_status_t status = call([&] {
            return to == 0 ? nexNipc_clientShareFd(handle, &message) : nexNipc_serviceShareFd(handle, to, &message);
        });
        close(region);
        return status;
    }
    // 1 when it was lost without a word, 2 when the connection is over, or a region came as none, and that was told.
    static int await(const std::atomic<int>& seen, int count = 1) {
        if (soon([&] { return seen >= count || gone > 0; }, 3s) && seen >= count) return 0;
        return gone > 0 ? 2 : 1;
    }

    std::int32_t handle = -1;
    std::atomic<bool> open{true};  // Otherwise events are held up.
    std::atomic<int> connected{0}, requests{0}, events{0}, shares{0}, acks{0}, asides{0}, refused{0};
    std::atomic<std::uint16_t> client{0};  // The latest.
    static inline std::atomic<int> gone{0};

private:
    template <typename Call>
    static nex_status_t call(Call body) {
        const OwnAllocations platforms(false);
        return body();
    }
    static int listen(nexNipc_parameter_t* parameter) {
        static_cast<End*>(parameter->userContext)->take(*parameter);
        return 0;
    }
    void take(nexNipc_parameter_t& parameter) {
        if (parameter.type == EVENT) return takeEvent(parameter);
        switch (parameter.functionId) {
            case CLIENT_FD_PROCESSING_COMPLETED_ID:
            case SERVER_FD_PROCESSING_COMPLETED_ID:
                ++acks;
                break;
            case CLIENT_SHARE_FD_ID:
            case SERVER_SHARE_FD_ID: {
                const auto* const message = static_cast<const ShareFdMsg*>(parameter.data);
                const bool whole = message->fdCount == 1 && message->metadata != nullptr && message->fds[0] >= 0;
                if (whole) close(message->fds[0]);
                whole ? ++shares : ++gone;
                break;
            }
            case kEvent:
                soon([this] { return open.load(); }, 10s);
                // Many of these are gathered; those before a pause are not kept waiting.
                for (const std::uint32_t size : {10U, 5000U}) {
                    if (const nex_status_t status = request(kAside, size)) refused = status;
                }
                if (++events % 20 == 0) std::this_thread::sleep_for(2ms);
                break;
            case kAside:
                ++asides;
                break;
            default:
                ++requests;
                *parameter.status = 0;
        }
    }
    void takeEvent(const nexNipc_parameter_t& parameter) {
        const bool up =
            parameter.eventId == NEX_NIPC_EVENT_CONNECTION_DONE || parameter.eventId == NEX_NIPC_EVENT_CLIENT_CONNECTED;
        if (up) client = parameter.peerId;
        up ? ++connected : ++gone;
    }
};

// More than the socket takes, so that events queue up; more than the high mark, so that requests are held back.
bool crowd(Steps& steps, End& service, End& client) {
    client.open = false;
    for (int i = 0; i < kEvents; ++i) {
        if (!steps.good("event", service.callback(service.client, kEvent, 16000))) break;
    }
    const bool queued = steps.failed.empty() && steps.good("queued share", service.share(service.client)) &&
                        steps.good("held request", client.request(kRequest, 10));
    client.open = true;
    return queued && steps.good("events", End::await(client.events, kEvents)) &&
           steps.good("share after events", End::await(client.shares)) &&
           steps.good("request from inside", client.refused) &&
           steps.good("requests from inside", End::await(service.asides, 2 * kEvents)) &&
           steps.good("request after events", End::await(service.requests, 4));
}

// Few enough that nothing is held back: what the listener sends meanwhile is a stream of long requests.
bool stream(Steps& steps, End& service, End& client) {
    const int events = client.events + kEvents;
    const int asides = service.asides + 2 * kEvents;
    client.open = false;
    for (int i = 0; i < kEvents; ++i) {
        if (!steps.good("event", service.callback(service.client, kEvent, 100))) break;
    }
    client.open = true;
    return steps.failed.empty() && steps.good("events", End::await(client.events, events)) &&
           steps.good("request from inside", client.refused) &&
           steps.good("requests from inside", End::await(service.asides, asides));
}

bool exchangeShares(Steps& steps, End& service, End& client) {
    const int before = client.shares;
    return steps.good("share to service", client.share(0)) &&
           steps.good("shared to service", End::await(service.shares)) &&
           steps.good("acknowledge", service.callback(service.client, SERVER_FD_PROCESSING_COMPLETED_ID, 0)) &&
           steps.good("acknowledged", End::await(client.acks)) &&
           steps.good("share to client", service.share(service.client)) &&
           steps.good("shared to client", End::await(client.shares, before + 1)) &&
           steps.good("acknowledge to service", client.request(CLIENT_FD_PROCESSING_COMPLETED_ID, 0)) &&
           steps.good("service acknowledged", End::await(service.acks));
}

}  // namespace

std::string platformLife(const std::string& directory) {
    std::filesystem::remove_all(directory);
    End::gone = 0;
    Steps steps;
    End service;
    End client;
    // It is there first, and waits.
    const unsigned dials = passesOf("connect");
    int connected = 1;
    std::thread early([&] {
        const OwnAllocations mine;
        connected = client.connect();
    });
    soon([&] { return passesOf("connect") > dials; }, 200ms);
    steps.good("start", service.start());
    early.join();
    steps.good("connect", connected) && steps.good("connected", End::await(client.connected)) &&
        steps.good("client connected", End::await(service.connected)) && steps.good("sync", client.sync(100)) &&
        steps.good("large sync", client.sync(100000)) && steps.good("request", client.request(kRequest, 100)) &&
        steps.good("served", End::await(service.requests, 3)) && exchangeShares(steps, service, client) &&
        crowd(steps, service, client) && stream(steps, service, client);
    client.disconnect();
    if (service.connected > 0) soon([] { return End::gone > 0; }, 3s);
    return steps.failed;
}
