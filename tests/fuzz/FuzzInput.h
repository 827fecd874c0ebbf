#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

/// What a fuzz target reads its choices from; zeros when there is nothing left.
class FuzzInput {
public:
    FuzzInput(const std::uint8_t* data, std::size_t size) : at_(data), end_(data + size) {}

    bool empty() const { return at_ == end_; }
    std::uint8_t byte() { return empty() ? std::uint8_t{0} : *at_++; }
    std::uint16_t number() {
        const unsigned low = byte();
        return static_cast<std::uint16_t>(low | static_cast<unsigned>(byte()) << 8U);
    }
    /// As many as there are, `size` at most.
    std::string bytes(std::size_t size) {
        std::string text;
        while (text.size() < size && !empty()) text.push_back(static_cast<char>(byte()));
        return text;
    }

private:
    const std::uint8_t* at_;
    const std::uint8_t* end_;
};

inline void require(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "does not hold: %s\n", what);
    std::abort();
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
