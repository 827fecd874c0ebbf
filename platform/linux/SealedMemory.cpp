#include "SealedMemory.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <cerrno>
#include <cstdio>
#include <limits>

namespace nexnipc {
namespace {

constexpr int kRegionSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;
constexpr int kCopySeals = kRegionSeals | F_SEAL_WRITE;

bool isSealed(int memory, int seals, std::uint64_t length) {
    const int present = ::fcntl(memory, F_GET_SEALS);
    if (present < 0 || (present & seals) != seals) return false;
    // Huge pages could not be unmapped by a length that is not a multiple of theirs.
    struct statfs system {};
    if (::fstatfs(memory, &system) != 0 || static_cast<std::uint32_t>(system.f_type) == HUGETLBFS_MAGIC) return false;
    struct stat status {};
    return ::fstat(memory, &status) == 0 && static_cast<std::uint64_t>(status.st_size) >= length;
}

}  // namespace

int makeSealedCopy(const void* data, std::size_t length, Fd& memory) {
    memory.reset(::memfd_create("nipc-sync", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!memory.valid()) return -errno;
    const char* from = static_cast<const char*>(data);
    for (std::size_t done = 0; done < length;) {
        const ssize_t written = ::write(memory.get(), from + done, length - done);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return written < 0 ? -errno : -EIO;
        done += static_cast<std::size_t>(written);
    }
    return ::fcntl(memory.get(), F_ADD_SEALS, kCopySeals) == 0 ? 0 : -errno;
}

int makeSealedRegion(const char* name, std::size_t size, Fd& region) {
    if (size == 0 || size > static_cast<std::size_t>(std::numeric_limits<off_t>::max())) return -EINVAL;
    char shown[200];  // the kernel refuses longer ones
    std::snprintf(shown, sizeof(shown), "%s", name != nullptr ? name : "ashmem");
    region.reset(::memfd_create(shown, MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!region.valid()) return -errno;
    if (::ftruncate(region.get(), static_cast<off_t>(size)) != 0) return -errno;
    return ::fcntl(region.get(), F_ADD_SEALS, kRegionSeals) == 0 ? 0 : -errno;
}

bool isSealedRegion(int region, std::uint64_t length) { return isSealed(region, kRegionSeals, length); }

Mapping::~Mapping() {
    if (data_ != nullptr) ::munmap(data_, length_);
}

int Mapping::map(int memory, std::size_t length) {
    if (!isSealed(memory, kCopySeals, length)) return -EPROTO;
    void* mapped = ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE, memory, 0);
    if (mapped == MAP_FAILED) return -errno;
    data_ = mapped;
    length_ = length;
    return 0;
}

}  // namespace nexnipc
