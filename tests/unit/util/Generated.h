#pragma once

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <random>
#include <string>

/// Inputs for property checks. Prints its seed; NIPC_TEST_SEED repeats a run.
class Generated {
public:
    Generated() : seed(chooseSeed()), engine(seed) { std::cout << "NIPC_TEST_SEED=" << seed << std::endl; }

    std::size_t below(std::size_t limit) { return engine() % limit; }

    /// Numbers of all magnitudes alike.
    unsigned long long number() {
        const std::uint64_t bits = (std::uint64_t{engine()} << 32) | engine();
        return (bits >> below(64)) * (below(2) == 0 ? 1 : ~0ULL);
    }

    /// Up to `longest` bytes, each one of `alphabet`.
    std::string text(const std::string& alphabet, std::size_t longest) {
        std::string result(below(longest + 1), '\0');
        for (char& c : result) c = alphabet[below(alphabet.size())];
        return result;
    }

private:
    static std::uint32_t chooseSeed() {
        const char* given = std::getenv("NIPC_TEST_SEED");
        return given != nullptr ? static_cast<std::uint32_t>(std::strtoul(given, nullptr, 10)) : std::random_device{}();
    }

    std::uint32_t seed;
    std::mt19937 engine;
};
