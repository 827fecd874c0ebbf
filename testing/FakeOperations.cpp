// The platform's operations: what the connector calls. They have to be visible, as the connector stands in a
// shared library.
#pragma GCC visibility push(default)
#include "cutils/ashmem.h"
#include "nex_nipc.h"
#pragma GCC visibility pop

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "FakePlatformState.h"
#include "SharedMemory.h"

namespace nipcconnector::testing {
namespace {

template <class Record>
Call describe(Operation operation, std::int32_t handle, const Record& record) {
    Call call;
    call.operation = operation;
    call.handle = handle;
    call.record.assign(reinterpret_cast<const char*>(&record), sizeof record);
    return call;
}

template <class Record>
Call describeMessage(Operation operation, std::int32_t handle, const Record& record) {
    Call call = describe(operation, handle, record);
    call.functionId = record.functionId;
    call.length = record.length;
    call.nullPayload = record.payload == nullptr;
    if (!call.nullPayload) call.payload.assign(static_cast<const char*>(record.payload), record.length);
    return call;
}

}  // namespace

// Here, so that who uses the platform has its operations linked.
FakePlatform& FakePlatform::instance() {
    static auto* const platform = new FakePlatform;
    return *platform;
}

std::int32_t FakePlatform::perform(Call call, std::int32_t* newHandle, Listener newListener, void* userContext) {
    std::unique_lock<std::mutex> lock(state->mutex);
    State::Script& script = state->scriptOf(call.operation);
    std::int32_t status = call.nullPayload && call.length > 0 ? -EINVAL : 0;  // Bytes that are not there.
    if (!script.results.empty()) {
        status = script.results.front();
        script.results.pop_front();
    }
    if (status == 0 && newHandle != nullptr) {
        call.handle = *newHandle = state->nextHandle++;
        state->endpoints.push_back({call.handle, call.operation == Operation::Start, newListener, userContext});
    }
    state->recorded.push_back(call);
    std::function<void(const Call&)> hook;
    hook.swap(script.hook);
    state->called.notify_all();
    lock.unlock();
    if (hook) hook(call);
    return status;
}

struct FakeOperations {
    template <class Record>
    static nex_status_t openEndpoint(Operation operation, int32_t* handle, const Record& record) {
        return fake.perform(describe(operation, -1, record), handle, record.listener, record.userContext);
    }

    template <class Record>
    static nex_status_t sendMessage(Operation operation, int32_t handle, uint16_t clientId, const Record& record) {
        Call call = describeMessage(operation, handle, record);
        call.clientId = clientId;
        call.requestContext = reinterpret_cast<std::uintptr_t>(record.requestContext);
        return fake.perform(std::move(call));
    }

    static nex_status_t disconnect(int32_t handle) {
        return fake.perform(describe(Operation::Disconnect, handle, handle));
    }

    static nex_status_t answerSync(int32_t handle, SyncRpcRecord& record) {
        const nex_status_t status = fake.perform(describeMessage(Operation::RpcSync, handle, record));
        if (status != 0) return status;
        const Lock lock(fake.state->mutex);
        const SyncAnswer& answer = fake.state->syncAnswer;
        const std::size_t size = std::min<std::size_t>(answer.response.size(), record.responseLength);
        if (size > 0) std::memcpy(record.response, answer.response.data(), size);
        record.responseLength = answer.reportedLength.value_or(static_cast<std::uint32_t>(size));
        record.status = answer.status;
        return 0;
    }

    static nex_status_t share(Operation operation, int32_t handle, uint16_t clientId, const ShareFdMsg& message) {
        ShareFdMetadata metadata{};
        std::memcpy(&metadata, message.metadata, sizeof metadata);
        Call call = describe(operation, handle, message);
        call.clientId = clientId;
        call.functionId = metadata.functionId;
        call.length = metadata.length;
        call.requestContext = metadata.requestContext;
        call.payload.resize(metadata.length);
        const ssize_t got = pread(message.fds[0], call.payload.data(), metadata.length, 0);
        call.payload.resize(static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        const nex_status_t status = fake.perform(std::move(call));
        if (fake.acknowledgesShares && status == 0) fake.deliverAcknowledgement(clientId, handle);
        return status;
    }

    static int makeRegion(const char* name, std::size_t size) {
        Call call = describe(Operation::AshmemCreateRegion, -1, size);
        call.payload = name;
        const nex_status_t status = fake.perform(std::move(call));
        if (status != 0) return status;
        return fake.regionsCanBeMapped ? makeSharedMemory(name, size) : open("/dev/null", O_RDWR | O_CLOEXEC);
    }

    static inline FakePlatform& fake = FakePlatform::instance();
};

}  // namespace nipcconnector::testing

using nipcconnector::testing::FakeOperations;
using nipcconnector::testing::Operation;

nex_status_t nexNipc_start(int32_t* handle, const ServerStartRecord* record) {
    return FakeOperations::openEndpoint(Operation::Start, handle, *record);
}
nex_status_t nexNipc_connect(int32_t* handle, const ClientConnectRecord* record) {
    return FakeOperations::openEndpoint(Operation::Connect, handle, *record);
}
nex_status_t nexNipc_disconnect(int32_t* handle) { return FakeOperations::disconnect(*handle); }
nex_status_t nexNipc_rpcAsync(int32_t handle, AsyncRpcRecord* record) {
    return FakeOperations::sendMessage(Operation::RpcAsync, handle, 0, *record);
}
nex_status_t nexNipc_rpcSync(int32_t handle, SyncRpcRecord* record) {
    return FakeOperations::answerSync(handle, *record);
}
nex_status_t nexNipc_callback(int32_t handle, uint16_t clientId, CallbackRecord* record) {
    return FakeOperations::sendMessage(Operation::Callback, handle, clientId, *record);
}
nex_status_t nexNipc_clientShareFd(int32_t handle, ShareFdMsg* message) {
    return FakeOperations::share(Operation::ClientShareFd, handle, 0, *message);
}
nex_status_t nexNipc_serviceShareFd(int32_t handle, uint16_t clientId, ShareFdMsg* message) {
    return FakeOperations::share(Operation::ServiceShareFd, handle, clientId, *message);
}
extern "C" int ashmem_create_region(const char* name, size_t size) { return FakeOperations::makeRegion(name, size); }
