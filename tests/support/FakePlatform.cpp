#include "FakePlatform.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace nipctest {
namespace {

constexpr std::size_t listenerBufferSize = 16384;

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

int makeMemory(const char* name, std::size_t size) {
    const int descriptor = memfd_create(name, MFD_CLOEXEC);
    return ftruncate(descriptor, static_cast<off_t>(size)) == 0 ? descriptor : -1;
}

}  // namespace

FakePlatform& FakePlatform::instance() {
    static auto* const platform = new FakePlatform;
    return *platform;
}

bool FakePlatform::waitForCalls(Operation operation, std::size_t count, std::chrono::milliseconds limit) const {
    std::unique_lock<std::mutex> lock(mutex);
    const auto matches = [operation](const Call& call) { return call.operation == operation; };
    return called.wait_for(lock, limit, [&] {
        return static_cast<std::size_t>(std::count_if(recorded.begin(), recorded.end(), matches)) >= count;
    });
}

FakePlatform::Endpoint FakePlatform::endpoint(std::int32_t handle) const {
    const Lock lock(mutex);
    const auto found = std::find_if(endpoints.rbegin(), endpoints.rend(), [handle](const Endpoint& candidate) {
        return handle == -1 || candidate.handle == handle;
    });
    return found == endpoints.rend() ? Endpoint{-1, false, nullptr, nullptr} : *found;
}

Delivered FakePlatform::deliver(const Message& message) {
    const Endpoint target = endpoint(message.handle);
    const auto listener = message.listener != nullptr ? message.listener : target.listener;
    if (listener == nullptr) return {-ENOTCONN, 0, 0, {}};

    std::vector<char> buffer(std::max(listenerBufferSize, message.payload.size()));
    std::copy(message.payload.begin(), message.payload.end(), buffer.begin());
    Delivered delivered{0, message.status, static_cast<std::uint32_t>(message.payload.size()), {}};
    nexNipc_parameter_t parameter{};
    parameter.peerId = message.peerId;
    parameter.type = message.type;
    parameter.functionId = message.functionId;
    parameter.eventId = message.eventId;
    parameter.userContext = message.userContext != nullptr ? message.userContext : target.userContext;
    parameter.requestContext = reinterpret_cast<void*>(message.requestContext);
    if (!message.nullPointers) {
        parameter.length = &delivered.length;
        parameter.status = &delivered.status;
        parameter.data = message.share != nullptr ? static_cast<void*>(message.share) : buffer.data();
    }
    delivered.result = listener(&parameter);
    delivered.data.assign(buffer.data(), std::min<std::size_t>(delivered.length, buffer.size()));
    return delivered;
}

Delivered FakePlatform::deliverShare(const SharedMessage& shared) {
    ShareFdMetadata metadata{shared.claimedLength.value_or(static_cast<std::uint32_t>(shared.payload.size())),
                             shared.functionId, shared.requestContext};
    std::int32_t descriptor = shared.descriptor.value_or(-1);  // The listener closes it.
    if (!shared.descriptor) {
        descriptor = makeMemory("nipc_connector_payload", shared.payload.size());
        if (pwrite(descriptor, shared.payload.data(), shared.payload.size(), 0) < 0) return {-EIO, 0, 0, {}};
    }
    ShareFdMsg share{1, sizeof metadata, shared.nullDescriptors ? nullptr : &descriptor,
                     shared.nullMetadata ? nullptr : &metadata, 0};
    Message message = shared.message;
    const bool toServer = endpoint(message.handle).isServer;
    message.type = toServer ? ASYNC_FUNCTION : CALLBACK;
    message.functionId = toServer ? SERVER_SHARE_FD_ID : CLIENT_SHARE_FD_ID;
    message.share = &share;
    return deliver(message);
}

Delivered FakePlatform::deliverAcknowledgement(std::uint16_t clientId, std::int32_t handle) {
    Message message;
    message.handle = handle;
    message.peerId = clientId;
    const bool toServer = endpoint(handle).isServer;
    message.type = toServer ? ASYNC_FUNCTION : CALLBACK;
    message.functionId = toServer ? CLIENT_FD_PROCESSING_COMPLETED_ID : SERVER_FD_PROCESSING_COMPLETED_ID;
    return deliver(message);
}

nex_status_t FakePlatform::perform(Call call, std::int32_t* newHandle, nexNipc_listener_t newListener,
                                   void* userContext) {
    std::unique_lock<std::mutex> lock(mutex);
    Script& script = scriptOf(call.operation);
    nex_status_t status = call.nullPayload && call.length > 0 ? -EINVAL : 0;  // Bytes that are not there.
    if (!script.results.empty()) {
        status = script.results.front();
        script.results.pop_front();
    }
    if (status == 0 && newHandle != nullptr) {
        call.handle = *newHandle = nextHandle++;
        endpoints.push_back({call.handle, call.operation == Operation::Start, newListener, userContext});
    }
    recorded.push_back(call);
    std::function<void(const Call&)> hook;
    hook.swap(script.hook);
    called.notify_all();
    lock.unlock();
    if (hook) hook(call);
    return status;
}

nex_status_t FakePlatform::share(Operation operation, std::int32_t handle, std::uint16_t clientId,
                                 const ShareFdMsg& message) {
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
    const nex_status_t status = perform(std::move(call));
    if (acknowledgesShares && status == 0) deliverAcknowledgement(clientId, handle);
    return status;
}

nex_status_t FakePlatform::answerSync(std::int32_t handle, SyncRpcRecord& record) {
    const nex_status_t status = perform(describeMessage(Operation::RpcSync, handle, record));
    if (status != 0) return status;
    const Lock lock(mutex);
    const std::size_t size = std::min<std::size_t>(syncAnswer.response.size(), record.responseLength);
    if (size > 0) std::memcpy(record.response, syncAnswer.response.data(), size);
    record.responseLength = syncAnswer.reportedLength.value_or(static_cast<std::uint32_t>(size));
    record.status = syncAnswer.status;
    return 0;
}

int FakePlatform::makeRegion(const char* name, std::size_t size) {
    Call call = describe(Operation::AshmemCreateRegion, -1, size);
    call.payload = name;
    const nex_status_t status = perform(std::move(call));
    if (status != 0) return status;
    return regionsCanBeMapped ? makeMemory(name, size) : open("/dev/null", O_RDWR | O_CLOEXEC);
}

}  // namespace nipctest

using namespace nipctest;

namespace {

FakePlatform& fake = FakePlatform::instance();

template <class Record>
nex_status_t openEndpoint(Operation operation, int32_t* handle, const Record& record) {
    return fake.perform(describe(operation, -1, record), handle, record.listener, record.userContext);
}

template <class Record>
nex_status_t sendMessage(Operation operation, int32_t handle, uint16_t clientId, const Record& record) {
    Call call = describeMessage(operation, handle, record);
    call.clientId = clientId;
    call.requestContext = reinterpret_cast<std::uintptr_t>(record.requestContext);
    return fake.perform(std::move(call));
}

}  // namespace

nex_status_t nexNipc_start(int32_t* handle, const ServerStartRecord* record) {
    return openEndpoint(Operation::Start, handle, *record);
}
nex_status_t nexNipc_connect(int32_t* handle, const ClientConnectRecord* record) {
    return openEndpoint(Operation::Connect, handle, *record);
}
nex_status_t nexNipc_disconnect(int32_t* handle) {
    return fake.perform(describe(Operation::Disconnect, *handle, *handle));
}
nex_status_t nexNipc_rpcAsync(int32_t handle, AsyncRpcRecord* record) {
    return sendMessage(Operation::RpcAsync, handle, 0, *record);
}
nex_status_t nexNipc_rpcSync(int32_t handle, SyncRpcRecord* record) { return fake.answerSync(handle, *record); }
nex_status_t nexNipc_callback(int32_t handle, uint16_t clientId, CallbackRecord* record) {
    return sendMessage(Operation::Callback, handle, clientId, *record);
}
nex_status_t nexNipc_clientShareFd(int32_t handle, ShareFdMsg* message) {
    return fake.share(Operation::ClientShareFd, handle, 0, *message);
}
nex_status_t nexNipc_serviceShareFd(int32_t handle, uint16_t clientId, ShareFdMsg* message) {
    return fake.share(Operation::ServiceShareFd, handle, clientId, *message);
}
extern "C" int ashmem_create_region(const char* name, size_t size) { return fake.makeRegion(name, size); }
