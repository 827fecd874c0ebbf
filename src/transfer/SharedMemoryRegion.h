#pragma once

#include <cstdint>

namespace nipcconnector {

/// A mapped piece of shared memory that carries one payload. Owns descriptor and mapping.
class SharedMemoryRegion {
public:
    SharedMemoryRegion() = default;
    ~SharedMemoryRegion() { release(); }
    SharedMemoryRegion(const SharedMemoryRegion&) = delete;
    SharedMemoryRegion& operator=(const SharedMemoryRegion&) = delete;

    /// Makes a new region of just this size. False when there is none to be had.
    bool create(std::uint32_t bytes);
    /// Maps a region that a peer has made, and closes the descriptor, whatever the outcome. False when it
    /// cannot be mapped or is shorter than this size.
    bool mapReceived(std::int32_t receivedDescriptor, std::uint32_t bytes);

    /// Copies `size` bytes into it. False when there is no memory for them.
    bool fill(const char* from) const;
    /// Copies `size` bytes out of it, each of them read once.
    void copyTo(char* to) const;
    void release();

    std::int32_t descriptor = -1;  ///< Of a received region: one of our own, or -1.
    void* address = nullptr;
    std::uint32_t size = 0;

private:
    bool map(std::int32_t from, std::uint32_t bytes);
};

}  // namespace nipcconnector
