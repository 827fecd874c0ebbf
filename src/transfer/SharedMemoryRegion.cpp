#include "transfer/SharedMemoryRegion.h"

#include <cutils/ashmem.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace nipcconnector {
namespace {

struct Kind {
    bool isFile = false;
    bool isTooShort = false;
};

// A file tells its size, and reading past its end would be fatal. An ashmem device tells 0, and checks the
// length by itself when it is mapped.
Kind kindOf(int descriptor, std::uint32_t bytes) {
    struct stat status {};
    if (fstat(descriptor, &status) != 0) return {false, true};  // Not to be trusted: too big for 32 bits, for one.
    const bool isFile = S_ISREG(status.st_mode);
    return {isFile, isFile && static_cast<std::uint64_t>(status.st_size) < bytes};
}

}  // namespace

bool SharedMemoryRegion::create(std::uint32_t bytes) {
    descriptor = ashmem_create_region("nipc_connector_payload", bytes);
    if (descriptor < 0) return false;
    if (map(descriptor, bytes)) return true;
    release();
    return false;
}

bool SharedMemoryRegion::mapReceived(std::int32_t receivedDescriptor, std::uint32_t bytes) {
    const Kind kind = kindOf(receivedDescriptor, bytes);
    if (kind.isFile) descriptor = fcntl(receivedDescriptor, F_DUPFD_CLOEXEC, 0);
    const bool mapped = !kind.isTooShort && map(receivedDescriptor, bytes);
    if (receivedDescriptor >= 0) close(receivedDescriptor);
    return mapped;
}

// Where the region is a file, reading and writing it reaches the same memory as the mapping, but without page faults,
// which cost as much as the copy, or several times that. An ashmem device refuses.
bool SharedMemoryRegion::fill(const char* from) const {
    std::uint32_t done = 0;
    while (done < size) {
        const ssize_t now = pwrite(descriptor, from + done, size - done, static_cast<off_t>(done));
        if (now > 0) {
            done += static_cast<std::uint32_t>(now);
        } else if (now == 0 || errno != EINTR) {
            // Without memory, going on through the mapping would be fatal.
            if (now < 0 && (errno == ENOSPC || errno == ENOMEM)) return false;
            break;
        }
    }
    std::memcpy(static_cast<char*>(address) + done, from + done, size - done);
    return true;
}

void SharedMemoryRegion::copyTo(char* to) const {
    std::uint32_t done = 0;
    while (done < size && descriptor >= 0) {
        const ssize_t now = pread(descriptor, to + done, size - done, static_cast<off_t>(done));
        if (now > 0) {
            done += static_cast<std::uint32_t>(now);
        } else if (now == 0 || errno != EINTR) {
            break;
        }
    }
    std::memcpy(to + done, static_cast<const char*>(address) + done, size - done);
}

bool SharedMemoryRegion::map(std::int32_t from, std::uint32_t bytes) {
    void* const mapping = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, from, 0);
    if (mapping == MAP_FAILED) return false;
    address = mapping;
    size = bytes;
    return true;
}

void SharedMemoryRegion::release() {
    if (address != nullptr) munmap(address, size);
    if (descriptor >= 0) close(descriptor);
    descriptor = -1;
    address = nullptr;
    size = 0;
}

}  // namespace nipcconnector
