/** @file
 *  Android's shared memory, from the platform's utility library (libcutils; on Linux, libnex_nipc). */
#ifndef CUTILS_ASHMEM_H
#define CUTILS_ASHMEM_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Makes a shared-memory region of `size` bytes. Returns a descriptor that the caller closes, or a negative value.
 *  `name` is shown in /proc/PID/maps and may be null. The bytes are zero, or on Linux what an earlier region held
 *  that was shared, acknowledged and closed, as long as this process knows one peer only. */
int ashmem_create_region(const char* name, size_t size);

#ifdef __cplusplus
}
#endif

#endif
