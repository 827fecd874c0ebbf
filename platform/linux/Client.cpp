#include "Client.h"

#include <sys/epoll.h>

#include <cerrno>
#include <string>
#include <utility>

#include "Lane.h"
#include "Process.h"
#include "Settings.h"
#include "ShareFrame.h"
#include "Thread.h"
#include "Undo.h"

namespace nexnipc {

Client::Client(std::int32_t number, const ClientConnectRecord& record, Connection connection)
    : handle(number),
      upcall(record.listener, record.userContext),
      uuid_(record.uuid),
      main_(std::move(connection.main)),
      control_(std::move(connection.control)),
      ownProcess_(connection.ownProcess),
      serviceHandle_(connection.serviceHandle),
      maxSync_(maxSyncLength()),
      spinLimit_(connection.apart ? spinLimit() : std::chrono::microseconds(0)),
      channels_(control_, syncTimeoutMs(), spinLimit_),
      acks_(connection.peer, main_, spinLimit_.count() > 0),
      gathered_(std::make_shared<QueueBudget>(0)) {}

int Client::connect(std::int32_t* handle, const ClientConnectRecord& record) {
    Process& process = Process::get();
    if (const int status = process.start()) return status;
    Connection connection;
    if (const int status = establish(record.uuid, record.userContext, connection)) return status;
    const auto client = std::make_shared<Client>(process.nextHandle(), record, std::move(connection));
    if (!process.clients.add(client->handle, client)) return -ECANCELED;
    const std::int32_t before = std::exchange(*handle, client->handle);
    Undo undo([&] {
        *handle = before;
        process.clients.cancel(client->handle);
        client->shutdown();
    });
    const int status = client->open();
    if (status == 0) undo.dismiss();
    return status;
}

int Client::open() {
    const auto self = shared_from_this();
    auto source = std::make_shared<LaneFunction>([self](PacketBatch& scratch) { self->onControl(scratch); },
                                                 [self] { self->shutdown(); });
    controlSource_ = Process::get().lane.add(control_.fd(), EPOLLIN, std::move(source));
    if (controlSource_ == 0) return -errno;
    const std::string name = "nipc-cli-" + std::to_string(uuid_);
    return startThread(name.c_str(), [self] { self->deliver(); });
}

void Client::disconnect() {
    disconnected_ = true;
    upcall.gate.shut();
    shutdown();
    upcall.gate.waitEmpty();
}

void Client::shutdown() {
    sendGathered();
    Process::get().lane.remove(controlSource_);
    main_.shutdown();
    control_.shutdown();
    channels_.shut();
}

int Client::sendAsync(const AsyncRpcRecord& record) {
    if (record.functionId == CLIENT_FD_PROCESSING_COMPLETED_ID) return acknowledge();
    FrameHeader header;
    header.type = FrameType::AsyncRequest;
    header.functionId = record.functionId;
    header.length = record.length;
    header.context = reinterpret_cast<std::uintptr_t>(record.requestContext);
    return send(header, record.payload, -1);
}

int Client::acknowledge() {
    FrameHeader header;
    header.type = FrameType::Ack;
    header.sequence = acks_.delivered();
    return control_.send(header, nullptr, -1, Wait::No);
}

int Client::share(const ShareFdMsg* message) {
    OutgoingShare outgoing;
    if (const int status = outgoing.take(message)) return status;
    if (const int status = acks_.next(outgoing.descriptor, outgoing.header.sequence)) return status;
    const int status = send(outgoing.header, outgoing.metadata, outgoing.descriptor);
    if (status != 0) acks_.cancel(outgoing.header.sequence);
    return status;
}

void Client::onControl(PacketBatch& scratch) {
    scratch.receive(control_, Wait::No);
    bool good = true;
    while (Packet* const packet = scratch.next()) good = handleControl(*packet) && good;
    if (!good || (scratch.status() != 0 && scratch.status() != -EAGAIN)) shutdown();
}

bool Client::handleControl(Packet& packet) {
    const FrameHeader& header = packet.header;
    if (header.length != 0) return false;
    if (header.type == FrameType::ChannelOpened) {
        const int status = packet.descriptorLost ? -EMFILE : header.status;
        return channels_.opened(header.sequence, status, PacketSocket(std::move(packet.descriptor)));
    }
    if (header.type != FrameType::Ack || packet.hasDescriptor()) return false;
    if (!acks_.accept(header.sequence)) return true;
    Call call;
    call.type = CALLBACK;
    call.peerId = uuid_;
    call.functionId = SERVER_FD_PROCESSING_COMPLETED_ID;
    upcall.run(call);
    return true;
}

}  // namespace nexnipc
