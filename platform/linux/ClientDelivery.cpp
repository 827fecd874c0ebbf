#include <cerrno>

#include "Client.h"
#include "ShareFrame.h"

namespace nexnipc {

// The delivery thread of a client: tells that it is connected, what the service sends, and that it is gone.
void Client::deliver() {
    try {
        PacketBatch batch;
        Spin spin(spinLimit_);
        Call connected = Call::event(NEX_NIPC_EVENT_CONNECTION_DONE, uuid_);
        bool open = upcall.run(connected);
        while (open) open = takePackets(batch, spin);
    } catch (...) {
        // Out of memory: the connection is given up, and that is told.
    }
    shutdown();
    if (disconnected_) return;
    Call down = Call::event(NEX_NIPC_EVENT_SERVER_DOWN, uuid_);
    upcall.run(down);
}

bool Client::takePackets(PacketBatch& batch, Spin& spin) {
    PacketBatch::Result result;
    const auto receive = [&](Wait wait) {
        result = batch.receive(main_, wait);
        return result.status != -EAGAIN;
    };
    if (!spin.finds([&] { return receive(Wait::No); })) receive(Wait::Yes);
    for (unsigned i = 0; i < result.count; ++i) {
        if (disconnected_ || !handlePacket(batch[i])) return false;
    }
    return result.status == 0;
}

bool Client::handlePacket(Packet& packet) {
    switch (packet.header.type) {
        case FrameType::Callback:
            return handleCallback(packet);
        case FrameType::Share:
            return handleShare(packet);
        default:
            return false;
    }
}

bool Client::handleCallback(Packet& packet) {
    const FrameHeader& header = packet.header;
    const bool descriptor = packet.descriptor.valid() || packet.descriptorLost;
    if (hasOwnFrame(header.functionId) || packet.outOfLine() || descriptor) return false;
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
