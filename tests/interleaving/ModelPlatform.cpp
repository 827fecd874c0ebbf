#include "ModelPlatform.h"

#include <cerrno>

#include "Scheduler.h"

namespace interleaving {
namespace {

Scheduler& scheduler = Scheduler::instance();
ModelPlatform& model = ModelPlatform::instance();
thread_local const ModelPlatform::Connection* delivering = nullptr;

}  // namespace

ModelPlatform& ModelPlatform::instance() {
    static auto* const platform = new ModelPlatform;
    return *platform;
}

void ModelPlatform::reset() {
    connections_.clear();
    nextHandle_ = 100;
    serviceUp_ = true;
}

void ModelPlatform::setService(bool up) {
    scheduler.trace("the service %s", up ? "comes" : "goes");
    serviceUp_ = up;
    for (Connection& connection : connections_) {
        if (up || connection.state != State::Open) continue;
        connection.state = State::Gone;
        connection.events.push_back({NEX_NIPC_EVENT_SERVER_DOWN, 0});
    }
    scheduler.wake(this);
}

nex_status_t ModelPlatform::open(std::int32_t* handle, nexNipc_listener_t listener, void* context, bool isService) {
    scheduler.yield();
    if (!serviceUp_ || scheduler.chance(8)) return -ECONNREFUSED;
    if (isService && !held().empty()) scheduler.fail("started twice");
    Connection& connection = connections_.emplace_back();
    connection.handle = *handle = nextHandle_++;
    connection.listener = listener;
    connection.context = context;
    if (isService) {
        connection.events.push_back({NEX_NIPC_EVENT_CLIENT_CONNECTED, 0});
    } else if (scheduler.chance(6)) {
        connection.state = State::Failed;
        connection.events.push_back({NEX_NIPC_EVENT_CONNECTION_DONE, -EIO});
    } else {
        connection.events.push_back({NEX_NIPC_EVENT_CONNECTION_DONE, 0});
    }
    scheduler.trace("opened %d", static_cast<int>(connection.handle));
    scheduler.wake(this);
    scheduler.yield();
    return 0;
}

nex_status_t ModelPlatform::close(std::int32_t handle) {
    if (handle == -1) scheduler.fail("disconnected without a handle");
    scheduler.yield();
    for (Connection& connection : connections_) {
        if (connection.handle != handle) continue;
        if (connection.state == State::Closed) scheduler.fail("disconnected twice");
        if (connection.state != State::Undead && scheduler.chance(12)) {
            connection.state = State::Undead;
            return -EIO;
        }
        connection.state = State::Closed;
        connection.events.clear();
        scheduler.trace("closed %d", static_cast<int>(handle));
        while (connection.inListener && delivering != &connection) scheduler.wait(&connection);
        return 0;
    }
    return -EBADF;
}

ModelPlatform::Connection* ModelPlatform::nextToDeliver() {
    for (Connection& connection : connections_) {
        if (!connection.inListener && !connection.events.empty()) return &connection;
    }
    return nullptr;
}

void ModelPlatform::deliver() {
    for (;;) {
        Connection* const connection = nextToDeliver();
        if (connection == nullptr) {
            if (!scheduler.attend(this)) return;
            continue;
        }
        const Connection::Event event = connection->events.front();
        connection->events.pop_front();
        connection->inListener = true;
        delivering = connection;
        scheduler.yield();
        nexNipc_parameter_t parameter{};
        std::int32_t status = event.status;
        parameter.type = EVENT;
        parameter.peerId = 1;
        parameter.eventId = event.id;
        parameter.status = &status;
        parameter.userContext = connection->context;
        connection->listener(&parameter);
        delivering = nullptr;
        connection->inListener = false;
        scheduler.wake(connection);
    }
}

std::vector<std::int32_t> ModelPlatform::held() const {
    std::vector<std::int32_t> handles;
    for (const Connection& connection : connections_) {
        if (connection.state == State::Open || connection.state == State::Gone) handles.push_back(connection.handle);
    }
    return handles;
}

bool ModelPlatform::isOpen(std::int32_t handle) const {
    for (const Connection& connection : connections_) {
        if (connection.handle == handle) return connection.state == State::Open;
    }
    return false;
}

}  // namespace interleaving

using interleaving::model;
using interleaving::scheduler;

namespace {

nex_status_t send(int32_t handle) {
    if (handle == -1) scheduler.fail("sent without a handle");
    return model.isOpen(handle) ? 0 : -ECONNRESET;
}

}  // namespace

nex_status_t nexNipc_start(int32_t* handle, const ServerStartRecord* record) {
    return model.open(handle, record->listener, record->userContext, true);
}
nex_status_t nexNipc_connect(int32_t* handle, const ClientConnectRecord* record) {
    return model.open(handle, record->listener, record->userContext, false);
}
nex_status_t nexNipc_disconnect(int32_t* handle) { return model.close(*handle); }
nex_status_t nexNipc_rpcAsync(int32_t handle, AsyncRpcRecord*) { return send(handle); }
nex_status_t nexNipc_rpcSync(int32_t handle, SyncRpcRecord* record) {
    record->status = 0;
    return send(handle);
}
nex_status_t nexNipc_callback(int32_t handle, uint16_t, CallbackRecord*) { return send(handle); }
nex_status_t nexNipc_clientShareFd(int32_t handle, ShareFdMsg*) { return send(handle); }
nex_status_t nexNipc_serviceShareFd(int32_t handle, uint16_t, ShareFdMsg*) { return send(handle); }
extern "C" int ashmem_create_region(const char*, size_t) { return -1; }
