#pragma once

#include <array>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <string>

namespace thermostat {

inline std::uint64_t fnv1a(const char* data, std::size_t length) {
    std::uint64_t hash = 0xcbf29ce484222325U;
    for (std::size_t i = 0; i < length; ++i) hash = (hash ^ static_cast<unsigned char>(data[i])) * 0x100000001b3U;
    return hash;
}

/// The FNV-1a checksum of `length` bytes at `data`, as 16 hexadecimal digits.
inline std::string checksum(const char* data, std::size_t length) {
    std::array<char, 17> digits{};
    std::snprintf(digits.data(), digits.size(), "%016" PRIx64, fnv1a(data, length));
    return digits.data();
}

/// `size` bytes, zeros among them, that differ from one `seed` to the next.
inline std::string makePayload(const std::string& seed, std::size_t size) {
    std::string payload(size, '\0');
    std::uint64_t state = fnv1a(seed.data(), seed.size());
    for (char& byte : payload) {
        state = state * 6364136223846793005U + 1442695040888963407U;
        byte = static_cast<char>(state >> 56U);
    }
    return payload;
}

}  // namespace thermostat
