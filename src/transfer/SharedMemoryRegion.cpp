#include "transfer/SharedMemoryRegion.h"

#include <cutils/ashmem.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

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
