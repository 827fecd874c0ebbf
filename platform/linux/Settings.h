#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

// The environment, which is read here only.
namespace nexnipc {

// Where services are offered, without a trailing slash; never empty.
std::string ownDirectory();
// Where root's services are.
std::string rootDirectory();
// The group whose members are trusted, besides this user and root.
std::optional<unsigned> trustedGroup();
// The longest synchronous request or answer.
std::uint32_t maxSyncLength();
// How long a synchronous request waits for its answer; 0: as long as it takes.
std::int64_t syncTimeoutMs();
// How long to look for the next message before sleeping; 0: not at all.
std::chrono::microseconds spinLimit();

}  // namespace nexnipc
