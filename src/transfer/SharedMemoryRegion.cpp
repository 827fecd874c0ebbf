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

// Repeats a partial read or write until all is done or nothing more goes; how much was done.
template <typename Transfer>
std::uint32_t repeat(std::uint32_t bytes, Transfer transfer) {
    std::uint32_t done = 0;
    while (done < bytes) {
        const ssize_t now = transfer(done, bytes - done);
        if (now < 0 && errno == EINTR) continue;
        if (now <= 0) break;
        done += static_cast<std::uint32_t>(now);
    }
    return done;
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
    return !mayBeTooShort(descriptor, bytes) && map(bytes);
}

// Where the region is a file, reading and writing it reaches the same memory as the mapping, but without a page
// fault for each page, which costs several times the copy. An ashmem device refuses both.
bool SharedMemoryRegion::fill(const char* from) const {
    const std::uint32_t done = repeat(size, [&](std::uint32_t at, std::uint32_t bytes) {
        return pwrite(descriptor, from + at, bytes, static_cast<off_t>(at));
    });
    // Going on through the mapping would be fatal.
    if (done < size && (errno == ENOSPC || errno == ENOMEM)) return false;
    std::memcpy(static_cast<char*>(address) + done, from + done, size - done);
    return true;
}

void SharedMemoryRegion::copyTo(char* to) const {
    const std::uint32_t done = repeat(size, [&](std::uint32_t at, std::uint32_t bytes) {
        return pread(descriptor, to + at, bytes, static_cast<off_t>(at));
    });
    std::memcpy(to + done, static_cast<const char*>(address) + done, size - done);
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
