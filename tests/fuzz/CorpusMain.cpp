// Stands in for the fuzzer: runs its target once with each file of the directories that are given.
#include <filesystem>
#include <fstream>
#include <iterator>

#include "FuzzInput.h"

int main(int argc, char** argv) {
    unsigned count = 0;
    for (int i = 1; i < argc; ++i) {
        for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
            std::ifstream file(entry.path(), std::ios::binary);
            const std::string input{std::istreambuf_iterator<char>(file), {}};
            LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
            ++count;
        }
    }
    std::printf("%u inputs\n", count);
    return count > 0 ? 0 : 1;
}
