#pragma once

/// Marks what the shared library exports; everything else is hidden.
#if defined(__GNUC__)
#define SMARTHOME_EXPORT __attribute__((visibility("default")))
#else
#define SMARTHOME_EXPORT
#endif
