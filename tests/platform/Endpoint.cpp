#include "Endpoint.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "Process.h"
#include "cutils/ashmem.h"

namespace {

std::uint32_t sizeOf(const std::string& bytes) { return static_cast<std::uint32_t>(bytes.size()); }

bool isShare(const nexNipc_parameter_t& p) {
    return (p.type == CALLBACK && p.functionId == CLIENT_SHARE_FD_ID) ||
           (p.type == ASYNC_FUNCTION && p.functionId == SERVER_SHARE_FD_ID);
}

void takeShare(const ShareFdMsg& share, Message& message) {
    message.hasDescriptors = share.fds != nullptr;
    message.hasMetadata = share.metadata != nullptr;
    if (!message.hasDescriptors || !message.hasMetadata) return;
    message.descriptor = share.fds[0];
    ShareFdMetadata metadata;
    std::memcpy(&metadata, share.metadata, sizeof metadata);
    message.context = contextOf(metadata.requestContext);
    if (message.descriptor < 0 || metadata.length == 0) return;
    message.data.resize(metadata.length);
    message.data.resize(static_cast<std::size_t>(
        std::max<ssize_t>(0, pread(message.descriptor, message.data.data(), message.data.size(), 0))));
    close(message.descriptor);
}

Message read(const nexNipc_parameter_t& p, std::int32_t handle) {
    Message message;
    message.type = p.type;
    message.id = p.type == EVENT ? p.eventId : p.functionId;
    message.peer = p.peerId;
    message.context = p.requestContext;
    message.thread = static_cast<pid_t>(syscall(SYS_gettid));
    message.handle = handle;
    if (p.type == EVENT) {
        if (p.status != nullptr) message.status = *p.status;
    } else if (isShare(p)) {
        takeShare(*static_cast<const ShareFdMsg*>(p.data), message);
    } else if (p.length != nullptr && *p.length > 0) {
        message.data.assign(static_cast<const char*>(p.data), *p.length);
    }
    return message;
}

}  // namespace

int Endpoint::listen(nexNipc_parameter_t* parameter) {
    auto& self = *static_cast<Endpoint*>(parameter->userContext);
    Message message = read(*parameter, self.handle);
    if (self.handler_)
        self.handler_(self, message, *parameter);
    else if (parameter->type == SYNC_FUNCTION)
        echo(*parameter);
    const std::lock_guard<std::mutex> lock(self.mutex_);
    self.messages_.push_back(std::move(message));
    self.arrived_.notify_all();
    return 0;
}

nex_status_t Endpoint::start(std::uint16_t uuid) {
    const ServerStartRecord record{uuid, 0, &Endpoint::listen, 16384, 10, 1, {}, 1, this, {}};
    return nexNipc_start(&handle, &record);
}

nex_status_t Endpoint::connect(std::uint16_t uuid) {
    const ClientConnectRecord record{uuid, &Endpoint::listen, 16384, 1, this, {}};
    return nexNipc_connect(&handle, &record);
}

nex_status_t Endpoint::disconnect() {
    if (handle < 0) return 0;
    std::int32_t old = handle;
    const nex_status_t status = nexNipc_disconnect(&old);
    handle = -1;
    return status;
}

Answer Endpoint::call(std::uint16_t function, const std::string& payload, std::uint32_t capacity) const {
    Answer answer{0, 1, std::string(capacity, '\0')};
    SyncRpcRecord record{function, 0, payload.data(), sizeOf(payload), answer.response.data(), capacity, 1};
    answer.transport = nexNipc_rpcSync(handle, &record);
    answer.status = record.status;
    answer.response.resize(answer.transport == 0 && record.status == 0 ? record.responseLength : 0);
    return answer;
}

nex_status_t Endpoint::request(std::uint16_t function, const std::string& payload, void* context) const {
    AsyncRpcRecord record{function, 0, payload.data(), sizeOf(payload), 0, function, 0, 0, context};
    return nexNipc_rpcAsync(handle, &record);
}

nex_status_t Endpoint::callback(std::uint16_t client, std::uint16_t function, const std::string& payload,
                                void* context) const {
    CallbackRecord record{0, function, 0, 0, payload.data(), sizeOf(payload), context};
    return nexNipc_callback(handle, client, &record);
}

nex_status_t Endpoint::share(std::uint16_t client, int descriptor, const ShareFdMetadata& metadata,
                             std::uint32_t metadataSize) const {
    ShareFdMetadata copy = metadata;
    ShareFdMsg message{descriptor < 0 ? 0U : 1U, metadataSize, &descriptor, &copy, 0};
    return client == 0 ? nexNipc_clientShareFd(handle, &message) : nexNipc_serviceShareFd(handle, client, &message);
}

Message Endpoint::next(std::uint16_t id) {
    const auto matches = [id](const Message& message) { return message.id == id; };
    std::unique_lock<std::mutex> lock(mutex_);
    auto found = messages_.end();
    const bool came = arrived_.wait_for(lock, nipctest::kPatience, [&] {
        found = std::find_if(messages_.begin(), messages_.end(), matches);
        return found != messages_.end();
    });
    if (!came) {
        ADD_FAILURE() << "nothing came with id " << id;
        return {};
    }
    Message message = std::move(*found);
    messages_.erase(found);
    return message;
}

std::size_t Endpoint::count(std::uint16_t id) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<std::size_t>(
        std::count_if(messages_.begin(), messages_.end(), [id](const Message& message) { return message.id == id; }));
}

void Endpoint::forget() {
    const std::lock_guard<std::mutex> lock(mutex_);
    messages_.clear();
}

void echo(nexNipc_parameter_t& parameter) { *parameter.status = 0; }

void answer(nexNipc_parameter_t& parameter, const std::string& response) {
    *parameter.status = 0;
    *parameter.length = static_cast<std::uint32_t>(response.size());
    std::memcpy(parameter.data, response.data(), response.size());
}

void* contextOf(std::uintptr_t value) { return reinterpret_cast<void*>(value); }

int regionOf(const std::string& text) {
    const int region = ashmem_create_region("test", text.size());
    if (pwrite(region, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) return -1;
    return region;
}
