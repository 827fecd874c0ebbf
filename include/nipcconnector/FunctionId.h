#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace nipcconnector {

/// Stands for a request or event name on the wire. Computed identifiers lie in 1004..65279.
using FunctionId = std::uint16_t;

/// The identifier of a request or event name. Pure; usable in constant expressions.
///
/// Both ends compute it from the bytes of the name, taken unsigned. There are 64276 identifiers, so two
/// names of one service may share one (an even chance at about 300 names), which nothing detects at run
/// time. The hash is MurmurHash2 by Austin Appleby, 32 bits, seeded with the length: what std::hash
/// gives for a string on the 32-bit target.
constexpr FunctionId computeFunctionId(std::string_view name) noexcept {
    constexpr std::uint32_t multiplier = 0x5bd1e995U;
    const auto byteAt = [name](std::size_t i) {
        return static_cast<std::uint32_t>(static_cast<unsigned char>(name[i]));
    };

    std::uint32_t hash = static_cast<std::uint32_t>(name.size());
    std::size_t i = 0;
    for (; name.size() - i >= 4; i += 4) {
        std::uint32_t word = byteAt(i) | byteAt(i + 1) << 8U | byteAt(i + 2) << 16U | byteAt(i + 3) << 24U;
        word *= multiplier;
        word ^= word >> 24U;
        hash = hash * multiplier ^ word * multiplier;
    }
    const std::size_t rest = name.size() - i;
    if (rest >= 3) hash ^= byteAt(i + 2) << 16U;
    if (rest >= 2) hash ^= byteAt(i + 1) << 8U;
    if (rest >= 1) hash = (hash ^ byteAt(i)) * multiplier;
    hash ^= hash >> 13U;
    hash *= multiplier;
    hash ^= hash >> 15U;

    std::uint32_t mix = 0;
    for (std::size_t k = 0; k < name.size(); ++k) mix ^= byteAt(k) << (k & 7U);
    return static_cast<FunctionId>((hash ^ mix << 1U) % 64276U + 1004U);
}

}  // namespace nipcconnector
