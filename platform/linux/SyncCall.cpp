#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Client.h"
#include "SealedMemory.h"
#include "Service.h"

namespace nexnipc {
namespace {

constexpr int kUrgeAfterMs = 10;

}  // namespace

// One send and one receive on the caller's thread; nothing else of this process is involved.
int Client::callSync(SyncRpcRecord& record) {
    if (record.length > maxSync_) return -EMSGSIZE;
    if (ownProcess_ && Service::delivers(serviceHandle_)) return -EDEADLK;
    Fd memory;
    if (record.length > kInlineLimit) {
        if (const int status = makeSealedCopy(record.payload, record.length, memory)) return status;
    }
    Channel* channel = nullptr;
    if (const int status = channels_.take(channel)) return status;
    FrameHeader request;
    request.type = FrameType::SyncRequest;
    request.functionId = record.functionId;
    request.length = record.length;
    request.context = record.responseLength;
    request.sequence = ++lastCall_;
    request.status = static_cast<std::int32_t>(channel->number);
    const int status = exchange(*channel, request, record.payload, memory.get(), record);
    channels_.giveBack(channel, status == 0);
    return status;
}

int Client::exchange(Channel& channel, const FrameHeader& request, const void* payload, int descriptor,
                     SyncRpcRecord& record) {
    if (const int status = send(request, payload, descriptor)) return status;
    FrameHeader answer;
    Fd memory;
    int length = 0;
    const auto receive = [&](Wait wait) {
        length = channel.socket.receiveInto(answer, record.response, record.responseLength, memory, wait);
        return length != -EAGAIN;
    };
    if (!channel.spin.finds([&] { return receive(Wait::No); })) {
        if (GatherScope::delivers(*this)) urge(channel, request);
        receive(Wait::Yes);
    }
    if (length < 0) return length == -EAGAIN ? -ETIMEDOUT : length;
    // A channel whose call was given up is closed, so no other answer can stand in it.
    if (answer.type != FrameType::SyncReply || answer.sequence != request.sequence) return -EPROTO;
    return takeAnswer(answer, length, memory, record);
}

// Inside the listener nobody takes what is queued for this connection, and the service may be waiting for that.
void Client::urge(const Channel& channel, const FrameHeader& request) const {
    pollfd ready{channel.socket.fd(), POLLIN, 0};
    if (::poll(&ready, 1, kUrgeAfterMs) > 0) return;
    FrameHeader header;
    header.type = FrameType::Urge;
    header.sequence = request.sequence;
    header.status = request.status;
    control_.send(header, nullptr, -1, Wait::No);
}

int Client::takeAnswer(const FrameHeader& answer, int inlineLength, const Fd& memory, SyncRpcRecord& record) const {
    if (answer.context != 0) return -static_cast<int>(std::min<std::uint64_t>(answer.context, 4095));
    if (answer.length > record.responseLength || (answer.length > kInlineLimit) != memory.valid()) return -EPROTO;
    if (memory.valid()) {
        Mapping mapping;
        if (const int status = mapping.map(memory.get(), answer.length)) return status;
        std::memcpy(record.response, mapping.data(), answer.length);
    } else if (static_cast<std::uint32_t>(inlineLength) != answer.length) {
        return -EPROTO;
    }
    record.responseLength = answer.length;
    record.status = answer.status;
    return 0;
}

}  // namespace nexnipc
