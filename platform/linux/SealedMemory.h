#pragma once

#include <cstddef>
#include <cstdint>

#include "Fd.h"

namespace nexnipc {

// A copy of `data` that nobody can change, for a synchronous payload too long for a packet.
int makeSealedCopy(const void* data, std::size_t length, Fd& memory);

// Memory that can neither shrink nor grow, nor get other seals; its content stays writable.
int makeSealedRegion(const char* name, std::size_t size, Fd& region);

// Whether the region can neither shrink nor grow, nor get other seals, and holds `length` bytes.
bool isSealedRegion(int region, std::uint64_t length);

// A private mapping of such a copy: writable, and ours alone.
class Mapping {
public:
    Mapping() = default;
    ~Mapping();
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;

    // 0; -EPROTO when the memory is not a sealed copy of that length; or another negative errno.
    int map(int memory, std::size_t length);
    char* data() const { return static_cast<char*>(data_); }

private:
    void* data_ = nullptr;
    std::size_t length_ = 0;
};

}  // namespace nexnipc
