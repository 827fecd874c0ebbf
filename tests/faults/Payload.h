#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

/// Payloads that tell by themselves whether they arrived as they were sent: a checksum, a number, and what fills them.
namespace nipctest {

struct PayloadHead {
    std::uint64_t checksum;
    std::uint64_t number;
};

inline std::uint64_t checksumOf(const char* data, std::size_t size) {
    std::uint64_t hash = size;
    for (std::size_t i = sizeof(std::uint64_t); i + sizeof(hash) <= size; i += sizeof(hash)) {
        std::uint64_t word = 0;
        std::memcpy(&word, data + i, sizeof(word));
        hash = (hash ^ word) * 1099511628211U;
        hash ^= hash >> 29U;
    }
    return hash;
}

/// `size` is a multiple of 8 and at least 16.
inline std::string payload(std::size_t size, std::uint64_t number) {
    std::string text(size, '\0');
    for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>((i * 31 + number) % 253);
    PayloadHead head{0, number};
    std::memcpy(text.data(), &head, sizeof(head));
    head.checksum = checksumOf(text.data(), size);
    std::memcpy(text.data(), &head, sizeof(head));
    return text;
}

/// The head's number is told as well.
inline bool isWhole(const char* data, std::size_t size, std::uint64_t& number) {
    if (size < sizeof(PayloadHead)) return false;
    PayloadHead head{};
    std::memcpy(&head, data, sizeof(head));
    number = head.number;
    return head.checksum == checksumOf(data, size);
}

}  // namespace nipctest
