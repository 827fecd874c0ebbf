#include "transfer/SharedMemoryRegion.h"

#include <cutils/ashmem.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace nipcconnector {
namespace {

// A file tells its size, and reading past its end would be fatal. An ashmem device tells 0, and checks the
// length by itself when it is mapped.
bool mayBeTooShort(int descriptor, std::uint32_t bytes) {
    struct stat status {};
    if (fstat(descriptor, &status) != 0) return true;  // Not to be trusted: too big for 32 bits, for one.
    return S_ISREG(status.st_mode) && static_cast<std::uint64_t>(status.st_size) < bytes;
}

}  // namespace

bool SharedMemoryRegion::create(std::uint32_t bytes) {
    descriptor = ashmem_create_region("nipc_connector_payload", bytes);
    if (descriptor < 0) return false;
    if (map(bytes)) return true;
    release();
    return false;
}

bool SharedMemoryRegion::mapReceived(std::int32_t receivedDescriptor, std::uint32_t bytes) {
    descriptor = receivedDescriptor;
    const bool mapped = !mayBeTooShort(descriptor, bytes) && map(bytes);
    if (descriptor >= 0) close(descriptor);
    descriptor = -1;
    return mapped;
}

// Where the region is a file, writing it reaches the same memory as the mapping, but without a page fault for each
// page, which costs several times the copy. An ashmem device refuses.
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

bool SharedMemoryRegion::map(std::uint32_t bytes) {
    void* const mapping = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
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
