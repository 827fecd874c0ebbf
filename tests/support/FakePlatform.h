#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "nex_nipc.h"

namespace nipctest {

// clang-format off
enum class Operation { Start, Connect, Disconnect, RpcAsync, RpcSync, Callback, ClientShareFd, ServiceShareFd,
                       AshmemCreateRegion, Count };
// clang-format on

/// One call of an operation, with copies of everything it pointed to.
struct Call {
    Operation operation = Operation::Start;
    std::int32_t handle = -1;  ///< As given; for start and connect as written.
    std::uint16_t clientId = 0;
    std::uint16_t functionId = 0;  ///< Of a share: of the carried message.
    bool nullPayload = false;
    std::string payload;  ///< Of a share: what stands in the shared memory.
    std::uint32_t length = 0;
    std::uintptr_t requestContext = 0;
    std::string record;  ///< The record itself, byte for byte (its pointers are void by now).
};

/// What the listener is called with.
struct Message {
    std::uint32_t type = CALLBACK;
    std::uint16_t peerId = 0;
    std::uint16_t functionId = 0;
    std::uint16_t eventId = 0;
    std::string payload;
    std::uintptr_t requestContext = 0;
    std::int32_t status = 0;
    bool nullPointers = false;              ///< Length, status and data are null.
    std::int32_t handle = -1;               ///< Whose listener; -1 for the newest.
    void* userContext = nullptr;            ///< If not the one that was registered with it.
    ShareFdMsg* share = nullptr;            ///< In place of the payload.
    nexNipc_listener_t listener = nullptr;  ///< If not the registered one.
};

/// A payload that arrives through shared memory.
struct SharedMessage {
    std::uint16_t functionId = 0;
    std::string payload;
    std::uint32_t requestContext = 0;
    std::optional<std::uint32_t> claimedLength{};  ///< If not the payload's.
    std::optional<std::int32_t> descriptor{};      ///< If not that of a new region.
    bool nullDescriptors = false;
    bool nullMetadata = false;
    Message message{};  ///< What carries it, apart from type and identifier.
};

/// What a listener call left behind.
struct Delivered {
    int result = 0;
    std::int32_t status = 0;
    std::uint32_t length = 0;
    std::string data;  ///< The first `length` bytes of the buffer, 16384 at most.
};

struct SyncAnswer {
    std::string response;
    std::int32_t status = 0;                      ///< The service's own, in the record.
    std::optional<std::uint32_t> reportedLength;  ///< If not the response's.
};

/// A platform that runs nothing by itself: it records calls, gives the results a test scripted, and
/// delivers what a test tells it to. Linked in place of libnex_nipc, it lets a component that uses the
/// connector be tested in one process and without a service.
///
/// Everything succeeds unless told otherwise. A connect succeeds at once and no event follows it; shares
/// are acknowledged from inside the share call. Deliveries run on the calling thread. Thread-safe.
class FakePlatform {
public:
    /// The one of the process; never destroyed, as a platform outlives its users.
    static FakePlatform& instance();

    /// Forgets calls, script, hooks and listeners.
    void reset() {
        const Lock lock(mutex);
        recorded.clear();
        scripts = {};
        endpoints.clear();
        syncAnswer = {};
        acknowledgesShares = regionsCanBeMapped = true;
    }
    /// The next `times` calls of `operation` return `status`.
    void failNext(Operation operation, nex_status_t status, std::size_t times = 1) {
        const Lock lock(mutex);
        scriptOf(operation).results.assign(times, status);
    }
    /// Runs `hook` inside the next call of `operation`, after its handle was written and before it returns.
    void onNextCall(Operation operation, std::function<void(const Call&)> hook) {
        const Lock lock(mutex);
        scriptOf(operation).hook.swap(hook);
    }
    void answerSyncWith(SyncAnswer answer) {
        const Lock lock(mutex);
        syncAnswer = std::move(answer);
    }
    std::atomic<bool> acknowledgesShares{true};
    std::atomic<bool> regionsCanBeMapped{true};

    std::vector<Call> calls(Operation operation) const {
        const Lock lock(mutex);
        std::vector<Call> found;
        for (const Call& call : recorded) {
            if (call.operation == operation) found.push_back(call);
        }
        return found;
    }
    void forgetCalls() {
        const Lock lock(mutex);
        recorded.clear();
    }
    /// Waits until `operation` was called `count` times; false when that took longer than `limit`.
    bool waitForCalls(Operation operation, std::size_t count,
                      std::chrono::milliseconds limit = std::chrono::seconds(10)) const;

    Delivered deliver(const Message& message);
    Delivered deliverEvent(std::uint16_t eventId, std::uint16_t peerId = 0, std::int32_t status = 0) {
        return deliver({EVENT, peerId, 0, eventId, {}, 0, status});
    }
    /// An answer, when `context` is not 0, else an event; to a client.
    Delivered deliverCallback(std::uint16_t functionId, const std::string& payload, std::uintptr_t context = 0) {
        return deliver({CALLBACK, 0, functionId, 0, payload, context});
    }
    /// A request to a server.
    Delivered deliverRequest(std::uint32_t type, std::uint16_t functionId, const std::string& payload,
                             std::uint16_t clientId, std::uintptr_t context = 0) {
        return deliver({type, clientId, functionId, 0, payload, context, -1});
    }
    Delivered deliverShare(const SharedMessage& shared);
    /// The peer has copied a shared payload.
    Delivered deliverAcknowledgement(std::uint16_t clientId = 0, std::int32_t handle = -1);

    /// The operations come in here.
    nex_status_t perform(Call call, std::int32_t* newHandle = nullptr, nexNipc_listener_t newListener = nullptr,
                         void* userContext = nullptr);
    nex_status_t share(Operation operation, std::int32_t handle, std::uint16_t clientId, const ShareFdMsg& message);
    nex_status_t answerSync(std::int32_t handle, SyncRpcRecord& record);
    int makeRegion(const char* name, std::size_t size);

    struct Endpoint {
        std::int32_t handle;
        bool isServer;
        nexNipc_listener_t listener;
        void* userContext;
    };
    /// What was started or connected with this handle, or last when it is -1; one of nulls when nothing was.
    Endpoint endpoint(std::int32_t handle = -1) const;

private:
    using Lock = std::lock_guard<std::mutex>;
    struct Script {
        std::deque<nex_status_t> results;
        std::function<void(const Call&)> hook;
    };

    FakePlatform() = default;
    Script& scriptOf(Operation operation) { return scripts[static_cast<std::size_t>(operation)]; }

    mutable std::mutex mutex;
    mutable std::condition_variable called;
    std::vector<Call> recorded;
    std::array<Script, static_cast<std::size_t>(Operation::Count)> scripts;
    std::vector<Endpoint> endpoints;
    SyncAnswer syncAnswer;
    std::int32_t nextHandle = 100;
};

}  // namespace nipctest
