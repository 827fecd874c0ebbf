#include "ShareFrame.h"

#include <cerrno>
#include <cstring>

#include "SealedMemory.h"

namespace nexnipc {

int OutgoingShare::take(const ShareFdMsg* message) {
    if (message == nullptr || message->fdCount > 1) return -EINVAL;
    if (message->fdCount == 1 && (message->fds == nullptr || message->fds[0] < 0)) return -EINVAL;
    if (message->metadata == nullptr && message->metadataSize > 0) return -EINVAL;
    if (message->metadataSize > kMetadataLimit) return -EMSGSIZE;
    header.type = FrameType::Share;
    header.length = message->metadataSize;
    metadata = message->metadata;
    if (message->fdCount == 1) descriptor = message->fds[0];
    if (message->metadataSize >= sizeof(ShareFdMetadata)) {
        ShareFdMetadata known;
        std::memcpy(&known, message->metadata, sizeof(known));
        isAnswer = known.requestContext != 0;
    }
    return 0;
}

IncomingShare::IncomingShare(Packet& packet) : descriptor_(std::move(packet.descriptor)) {
    std::memcpy(metadata_.data(), packet.payload, packet.header.length);
    if (packet.header.length >= sizeof(ShareFdMetadata)) {
        message_.metadata = metadata_.data();
        message_.metadataSize = packet.header.length;
    }
    if (!descriptor_.valid()) return;
    message_.fdCount = 1;
    message_.fds = &raw_;
    if (message_.metadata == nullptr) return;
    ShareFdMetadata known;
    std::memcpy(&known, metadata_.data(), sizeof(known));
    // The listener copies what is claimed, even of a region that is all holes.
    if (known.length > kShareLimit || !isSealedRegion(descriptor_.get(), known.length)) return;
    raw_ = descriptor_.get();
    belongsToListener_ = known.length > 0;
}

void IncomingShare::delivered() {
    if (belongsToListener_) descriptor_.release();
}

}  // namespace nexnipc
