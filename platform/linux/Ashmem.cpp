#include <fcntl.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstdio>
#include <limits>

#include "Fd.h"

#pragma GCC visibility push(default)
#include "cutils/ashmem.h"
#pragma GCC visibility pop

// Sealed at once, so that a receiver can trust the size; the content stays writable.
extern "C" int ashmem_create_region(const char* name, size_t size) {
    if (size == 0 || size > static_cast<size_t>(std::numeric_limits<off_t>::max())) return -EINVAL;
    char shown[200];  // the kernel refuses longer ones
    std::snprintf(shown, sizeof(shown), "%s", name != nullptr ? name : "ashmem");
    nexnipc::Fd region(::memfd_create(shown, MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!region.valid()) return -errno;
    if (::ftruncate(region.get(), static_cast<off_t>(size)) != 0) return -errno;
    if (::fcntl(region.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) != 0) return -errno;
    return region.release();
}
