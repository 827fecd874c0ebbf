#include <poll.h>

#include <cerrno>
#include <utility>

#include "Client.h"
#include "ShareFrame.h"

namespace nexnipc {

// The delivery thread of a client: tells that it is connected, what the service sends, and that it is gone.
void Client::deliver() {
    try {
        PacketBatch batch;
        Spin spin(spinLimit_);
        Spin announced(spinLimit_);
        Call connected = Call::event(NEX_NIPC_EVENT_CONNECTION_DONE, uuid_);
        bool open = upcall.run(connected);
        while (open) open = takePackets(batch, std::exchange(isAnnounced_, false) ? announced : spin);
    } catch (...) {
        // Out of memory: the connection is given up, and that is told.
    }
    shutdown();
    if (disconnected_) return;
    Call down = Call::event(NEX_NIPC_EVENT_SERVER_DOWN, uuid_);
    upcall.run(down);
}

bool Client::takePackets(PacketBatch& batch, Spin& spin) {
    receive(batch, spin);
    GatherScope scope(*this);
    while (Packet* const packet = batch.next()) {
        scope.setMore(batch.more());
        if (disconnected_ || !handlePacket(*packet)) return false;
    }
    return batch.status() == 0;
}

int Client::receive(PacketBatch& batch, Spin& spin) {
    // The service did not take what was gathered: there are two things to wait for.
    while (anyGathered_) {
        if (batch.receive(main_, Wait::No) != -EAGAIN) return batch.status();
        pollfd ready{main_.fd(), POLLIN | POLLOUT, 0};
        ::poll(&ready, 1, -1);
        sendGathered();
    }
    if (spin.finds([&] { return batch.receive(main_, Wait::No) != -EAGAIN; })) return batch.status();
    return batch.receive(main_, Wait::Yes);
}

bool Client::handlePacket(Packet& packet) {
    switch (packet.header.type) {
        case FrameType::Callback:
            return handleCallback(packet);
        case FrameType::Share:
            return handleShare(packet);
        case FrameType::Buffers:
            return incomingBuffers_.adopt(packet);
        case FrameType::Announce:
            isAnnounced_ = true;
            return packet.isBare();
        default:
            return false;
    }
}

bool Client::handleCallback(Packet& packet) {
    const FrameHeader& header = packet.header;
    const bool descriptor = packet.hasDescriptor();
    if (hasOwnFrame(header.functionId) || packet.outOfLine() || descriptor) return false;
    if (isBuffered(header) && !incomingBuffers_.fetch(packet)) return false;
    Call call;
    call.type = CALLBACK;
    call.peerId = uuid_;
    call.functionId = header.functionId;
    call.length = header.length;
    call.data = packet.payload;
    call.context = header.context;
    return upcall.run(call);
}

bool Client::handleShare(Packet& packet) {
    if (packet.header.length > kMetadataLimit) return false;
    acks_.setDelivered(packet.header.sequence);
    IncomingShare share(packet);
    Call call;
    call.type = CALLBACK;
    call.peerId = uuid_;
    call.functionId = CLIENT_SHARE_FD_ID;
    call.length = sizeof(ShareFdMsg);
    call.data = share.message();
    if (!upcall.run(call)) return false;
    share.delivered();
    return true;
}

}  // namespace nexnipc
