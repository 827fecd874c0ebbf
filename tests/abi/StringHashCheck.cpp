// Compares our function identifiers with those that the target's own standard library gives: built with Clang against
// libc++'s headers for 32-bit ARM, where std::hash of a string is the hash both ends must use.
#include <cstdint>
#include <cstdio>
#include <functional>
#include <random>
#include <string>

#include "nipcconnector/FunctionId.h"

static_assert(sizeof(std::size_t) == 4, "the hash of a 32-bit target is meant");

namespace {

constexpr std::size_t kLongest = 64;
constexpr int kNames = 10000;

std::uint16_t targetIdentifier(const std::string& name) {
    std::uint32_t mix = 0;
    for (std::size_t i = 0; i < name.size(); ++i)
        mix ^= static_cast<std::uint32_t>(static_cast<unsigned char>(name[i])) << (i & 7U);
    return static_cast<std::uint16_t>((std::hash<std::string>()(name) ^ (mix << 1U)) % 64276U + 1004U);
}

}  // namespace

int main() {
    std::mt19937 random(20240131);
    int different = 0;
    for (int i = 0; i < kNames; ++i) {
        // Every length in turn, with printable characters and with any bytes by turns.
        std::string name(static_cast<std::size_t>(i) % (kLongest + 1), ' ');
        const bool printable = i / static_cast<int>(kLongest + 1) % 2 == 0;
        for (char& c : name) c = static_cast<char>(printable ? 0x20U + random() % 0x5FU : random() % 0x100U);
        const unsigned ours = nipcconnector::computeFunctionId(name), theirs = targetIdentifier(name);
        if (ours == theirs) continue;
        ++different;
        std::printf("name %d (length %zu): %u here, %u by the target's hash\n", i, name.size(), ours, theirs);
    }
    std::printf("%d names, %d differences\n", kNames, different);
    return different == 0 ? 0 : 1;
}
