// The operations that the library exports: arguments are checked here, and nothing is thrown through here.
#pragma GCC visibility push(default)
#include "nex_nipc.h"
#pragma GCC visibility pop

#include <cerrno>
#include <new>

#include "Client.h"
#include "Process.h"
#include "Service.h"

namespace {

using nexnipc::Client;
using nexnipc::kInlineLimit;
using nexnipc::Process;
using nexnipc::Service;

template <typename Work>
nex_status_t guarded(Work work) noexcept {
    try {
        if (Process::get().isQuiet()) return -ESHUTDOWN;
        return work();
    } catch (const std::bad_alloc&) {
        return -ENOMEM;
    } catch (...) {
        return -EIO;
    }
}

bool isMissing(const void* bytes, std::uint32_t length) { return bytes == nullptr && length > 0; }

// What both requests and callbacks must be like. `acknowledgement` is the one that such a record may be.
template <typename Record>
int check(const Record* record, std::uint16_t acknowledgement) {
    if (record == nullptr || isMissing(record->payload, record->length)) return -EINVAL;
    const bool ordinary = !nexnipc::hasOwnFrame(record->functionId);
    return ordinary || record->functionId == acknowledgement ? 0 : -EINVAL;
}

}  // namespace

nex_status_t nexNipc_start(int32_t* handle, const ServerStartRecord* record) {
    if (handle == nullptr || record == nullptr || record->listener == nullptr) return -EINVAL;
    return guarded([&] { return Service::start(handle, *record); });
}

nex_status_t nexNipc_connect(int32_t* handle, const ClientConnectRecord* record) {
    if (handle == nullptr || record == nullptr || record->listener == nullptr) return -EINVAL;
    return guarded([&] { return Client::connect(handle, *record); });
}

nex_status_t nexNipc_disconnect(int32_t* handle) {
    if (handle == nullptr) return -EINVAL;
    const nex_status_t status = guarded([&] {
        if (const auto client = Process::get().clients.remove(*handle)) {
            client->disconnect();
            return 0;
        }
        if (const auto service = Process::get().services.remove(*handle)) {
            service->stop();
            return 0;
        }
        // Ended before, perhaps from inside a listener call: that call is waited for all the same.
        if (const auto client = Process::get().clients.findEnded(*handle)) client->upcall.gate.waitEmpty();
        if (const auto service = Process::get().services.findEnded(*handle)) service->upcall.gate.waitEmpty();
        return -EBADF;
    });
    return status == -ESHUTDOWN ? 0 : status;
}

nex_status_t nexNipc_rpcAsync(int32_t handle, AsyncRpcRecord* record) {
    if (const int status = check(record, CLIENT_FD_PROCESSING_COMPLETED_ID)) return status;
    if (record->length > kInlineLimit) return -EMSGSIZE;
    return guarded([&] {
        const auto client = Process::get().clients.find(handle);
        return client ? client->sendAsync(*record) : -EBADF;
    });
}

nex_status_t nexNipc_rpcSync(int32_t handle, SyncRpcRecord* record) {
    if (const int status = check(record, 0)) return status;
    if (isMissing(record->response, record->responseLength)) return -EINVAL;
    return guarded([&] {
        const auto client = Process::get().clients.find(handle);
        return client ? client->callSync(*record) : -EBADF;
    });
}

nex_status_t nexNipc_callback(int32_t handle, uint16_t clientId, CallbackRecord* record) {
    if (const int status = check(record, SERVER_FD_PROCESSING_COMPLETED_ID)) return status;
    if (record->length > kInlineLimit) return -EMSGSIZE;
    return guarded([&] {
        const auto service = Process::get().services.find(handle);
        return service ? service->callback(clientId, *record) : -EBADF;
    });
}

nex_status_t nexNipc_clientShareFd(int32_t handle, ShareFdMsg* message) {
    return guarded([&] {
        const auto client = Process::get().clients.find(handle);
        return client ? client->share(message) : -EBADF;
    });
}

nex_status_t nexNipc_serviceShareFd(int32_t handle, uint16_t clientId, ShareFdMsg* message) {
    return guarded([&] {
        const auto service = Process::get().services.find(handle);
        return service ? service->share(clientId, message) : -EBADF;
    });
}
