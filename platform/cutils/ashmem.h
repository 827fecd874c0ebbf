/** @file
 *  Android's shared memory, from the platform's utility library (libcutils; on Linux, libnex_nipc). */
#ifndef CUTILS_ASHMEM_H
#define CUTILS_ASHMEM_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Makes a shared-memory region of `size` bytes, all zero. Returns a descriptor that the caller closes,
 *  or a negative value. `name` is shown in /proc/PID/maps and may be null. */
int ashmem_create_region(const char* name, size_t size);

#ifdef __cplusplus
}
#endif

#endif
