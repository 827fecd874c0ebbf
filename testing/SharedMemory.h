#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>

namespace nipcconnector::testing {

/// A descriptor of `size` zero bytes, the caller's to close; -1 when there is none to be had.
inline int makeSharedMemory(const char* name, std::size_t size) {
    const int descriptor = memfd_create(name, MFD_CLOEXEC);
    if (descriptor < 0 || ftruncate(descriptor, static_cast<off_t>(size)) == 0) return descriptor;
    close(descriptor);
    return -1;
}

}  // namespace nipcconnector::testing
