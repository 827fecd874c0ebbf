#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct nexNipc_parameter_t;
struct ShareFdMsg;

/// What a component's tests need: a scripted platform, a clock, and journals of what was logged and recorded.
namespace nipcconnector::testing {

/// The platform's operations, and what makes a connector call them.
enum class Operation {
    Start,               ///< initialize() of a server.
    Connect,             ///< initialize() of a client, and each reconnection.
    Disconnect,          ///< A client is destroyed, or gives up a connection.
    RpcAsync,            ///< An asynchronous request of less than 16384 bytes.
    RpcSync,             ///< A synchronous request.
    Callback,            ///< A server's event or answer to an asynchronous request, to one client.
    ClientShareFd,       ///< A client's asynchronous request of 16384 bytes or more.
    ServiceShareFd,      ///< A server's event or answer of 16384 bytes or more, to one client.
    AshmemCreateRegion,  ///< Making the shared memory for one of these two.
    Count
};

/// One call of an operation, with copies of everything it pointed to.
struct Call {
    Operation operation = Operation::Start;  ///< Which one.
    std::int32_t handle = -1;                ///< As given; for start and connect as written.
    std::uint16_t clientId = 0;              ///< Of callback and serviceShareFd: to whom.
    std::uint16_t functionId = 0;            ///< Of a share: of the carried message.
    bool nullPayload = false;                ///< The payload's pointer was null.
    std::string payload;                     ///< Of a share: what stands in the shared memory.
    std::uint32_t length = 0;                ///< As given.
    std::uintptr_t requestContext = 0;       ///< As given: which callback an answer goes to.
    std::string record;                      ///< The record itself, byte for byte (its pointers are void by now).
};

/// The function by which a connector hears from the platform.
using Listener = int (*)(nexNipc_parameter_t*);

/// What a listener is called with; the numbers are those of nex_nipc.h.
struct Message {
    std::uint32_t type = 2;  ///< 0 synchronous request, 1 asynchronous request, 2 answer or event, 3 connection event.
    std::uint16_t peerId = 0;           ///< To a server: the client's id.
    std::uint16_t functionId = 0;       ///< Of the request, answer or event.
    std::uint16_t eventId = 0;          ///< Of a connection event.
    std::string payload;                ///< What `data` points to.
    std::uintptr_t requestContext = 0;  ///< Of a request, and of the answer to it.
    std::int32_t status = 0;            ///< What `*status` holds at first.
    bool nullPointers = false;          ///< Length, status and data are null.
    std::int32_t handle = -1;           ///< Whose listener; -1 for the newest.
    void* userContext = nullptr;        ///< If not the one that was registered with it.
    ShareFdMsg* share = nullptr;        ///< In place of the payload.
    Listener listener = nullptr;        ///< If not the registered one.
};

/// A payload that arrives through shared memory.
struct SharedMessage {
    std::uint16_t functionId = 0;                  ///< Of the message that is carried.
    std::string payload;                           ///< What stands in the shared memory.
    std::uint32_t requestContext = 0;              ///< Of the message that is carried.
    std::optional<std::uint32_t> claimedLength{};  ///< If not the payload's.
    std::optional<std::int32_t> descriptor{};      ///< If not that of a new region.
    bool nullDescriptors = false;                  ///< There is no list of descriptors.
    bool nullMetadata = false;                     ///< Nothing says what it is.
    Message message{};                             ///< What carries it, apart from type and identifier.
};

/// What a listener call left behind.
struct Delivered {
    int result = 0;            ///< What the listener returned; a negative errno value when there is none.
    std::int32_t status = 0;   ///< What `*status` holds in the end.
    std::uint32_t length = 0;  ///< What `*length` holds in the end.
    std::string data;          ///< The answer to a synchronous request: the first `length` bytes of the buffer.
};

/// What the service answers to synchronous requests.
struct SyncAnswer {
    std::string response;                         ///< Its bytes.
    std::int32_t status = 0;                      ///< The service's own; anything but 0 is a failure.
    std::optional<std::uint32_t> reportedLength;  ///< If not the response's.
};

/// A platform that runs nothing by itself: it records calls, gives the results a test scripted, and
/// delivers what a test tells it to. Linked into a test program it takes the place of libnex_nipc, and a
/// component that uses the connector is tested in one process and without a service.
///
/// Everything succeeds unless told otherwise. A connect succeeds at once and no event follows it; large
/// payloads are acknowledged at once. Deliveries run on the calling thread: when one returns, the
/// component's callback has run. Thread-safe.
class FakePlatform {
public:
    /// The one of the process; never destroyed, as a platform outlives its users.
    static FakePlatform& instance();
    ~FakePlatform() = delete;
    FakePlatform(const FakePlatform&) = delete;
    FakePlatform& operator=(const FakePlatform&) = delete;

    /// Forgets calls, script, hooks and listeners. For the start of each test.
    void reset();

    /// The next `times` calls of `operation` return `status`, a negative errno value such as -ECONNREFUSED.
    void failNext(Operation operation, std::int32_t status, std::size_t times = 1);
    /// Runs `hook` inside the next call of `operation`, after its handle was written and before it returns.
    void onNextCall(Operation operation, std::function<void(const Call&)> hook);
    /// From now on all synchronous requests get this answer; at first it is an empty one.
    void answerSyncWith(SyncAnswer answer);
    std::atomic<bool> acknowledgesShares{true};  ///< When false, large payloads run into their 3 s limit.
    std::atomic<bool> regionsCanBeMapped{true};  ///< When false, shared memory is handed out that is none.

    /// All calls of `operation` since the last reset(), in order.
    std::vector<Call> calls(Operation operation) const;
    /// All requests of this name that clients have sent, of whichever kind, in order.
    std::vector<Call> requests(const std::string& requestName) const;
    /// As if nothing had been called so far.
    void forgetCalls();
    /// Waits until `operation` was called `count` times; false when that took longer than `limit`. Needed
    /// where the connector's own thread makes the call: Connect, and Start after a failure.
    bool waitForCalls(Operation operation, std::size_t count,
                      std::chrono::milliseconds limit = std::chrono::seconds(10)) const;

    /// The server publishes an event: the client's handler of that name runs.
    Delivered publish(const std::string& eventType, const std::string& payload, std::int32_t handle = -1);
    /// The server answers `request`, one of requests(): its callback runs with these arguments.
    Delivered answer(const Call& request, bool success, const std::string& payload);
    /// The service goes away under the client, which then reconnects.
    Delivered endService(std::int32_t handle = -1);

    /// The operations above are made of these.
    Delivered deliver(const Message& message);
    /// A connection event, by its number in nex_nipc.h.
    Delivered deliverEvent(std::uint16_t eventId, std::uint16_t peerId = 0, std::int32_t status = 0);
    /// To a client: an answer, when `context` is not 0, else an event.
    Delivered deliverCallback(std::uint16_t functionId, const std::string& payload, std::uintptr_t context = 0);
    /// To a server: a request of this type, see Message::type. computeFunctionId() gives the name's identifier.
    Delivered deliverRequest(std::uint32_t type, std::uint16_t functionId, const std::string& payload,
                             std::uint16_t clientId, std::uintptr_t context = 0);
    /// To either: a payload of 16384 bytes or more.
    Delivered deliverShare(const SharedMessage& shared);
    /// To either: the peer has copied a large payload.
    Delivered deliverAcknowledgement(std::uint16_t clientId = 0, std::int32_t handle = -1);

    /// A service that was started or a client that connected.
    struct Endpoint {
        std::int32_t handle;  ///< As given out.
        bool isServer;        ///< Else a client.
        Listener listener;    ///< As registered, and the next one.
        void* userContext;    ///< What the listener is given.
    };
    /// What was started or connected with this handle, or last when it is -1; one of nulls when nothing was.
    Endpoint endpoint(std::int32_t handle = -1) const;

private:
    friend struct FakeOperations;  // By which the connector comes in.
    struct State;

    FakePlatform();
    std::int32_t perform(Call call, std::int32_t* newHandle = nullptr, Listener newListener = nullptr,
                         void* userContext = nullptr);

    const std::unique_ptr<State> state;
};

/// A name nobody has had in this process yet, beginning with `stem`. Connectors live until the process ends,
/// and getInstance() gives the old one for an old name: with a name of its own each test gets a fresh one.
std::string uniqueName(const std::string& stem);

}  // namespace nipcconnector::testing
