#pragma once

#include <cstdint>

namespace nipcconnector {

/// Asynchronous requests, their answers and events of this length or more go through shared memory.
constexpr unsigned int MAX_PAYLOAD_SIZE = 16384;

/// The buffer offered for the answer to a synchronous request; an answer of just this length still fits.
constexpr unsigned int SyncResponseCapacity = 16384;

/// The longest payload that shared memory carries.
constexpr unsigned int MAX_LARGE_PAYLOAD_SIZE = 5U * 1048576U;

/// How long the sender of a large payload waits for the receiver to have copied it.
constexpr std::uint64_t FD_ACK_TIMEOUT_NS = 3'000'000'000U;

constexpr std::uint64_t NANOSECONDS_PER_MILLISECOND = 1'000'000U;

}  // namespace nipcconnector
