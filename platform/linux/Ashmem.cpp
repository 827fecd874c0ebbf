#include <cerrno>

#include "RegionPool.h"

#pragma GCC visibility push(default)
#include "cutils/ashmem.h"
#pragma GCC visibility pop

extern "C" int ashmem_create_region(const char* name, size_t size) {
    try {
        return nexnipc::RegionPool::get().make(name, size);
    } catch (...) {
        return -ENOMEM;
    }
}
