#pragma once

#include <cstring>
#include <memory>

#include "Frame.h"

namespace nexnipc {

// A packet that is being put together from frames.
class PacketBuilder {
public:
    bool empty() const { return size_ == 0; }
    unsigned frames() const { return frames_; }
    const char* bytes() const { return bytes_.get(); }
    std::size_t size() const { return size_; }

    // Of an inline frame.
    bool fits(const FrameHeader& header) const {
        return aligned(size_) + sizeof(header) + inlineLength(header) <= kPacketLimit;
    }
    // Only what fits.
    void add(const FrameHeader& header, const void* payload) {
        if (!bytes_) bytes_.reset(new char[kPacketLimit]);
        for (const std::size_t start = aligned(size_); size_ < start;) bytes_[size_++] = 0;
        std::memcpy(bytes_.get() + size_, &header, sizeof(header));
        size_ += sizeof(header);
        const std::size_t length = inlineLength(header);
        if (length > 0) std::memcpy(bytes_.get() + size_, payload, length);
        size_ += length;
        ++frames_;
    }
    void clear() {
        size_ = 0;
        frames_ = 0;
    }

private:
    std::unique_ptr<char[]> bytes_;
    std::size_t size_ = 0;
    unsigned frames_ = 0;
};

}  // namespace nexnipc
