// nipc_faults platform|connector DESCRIPTORS THREADS MAPPINGS ALLOCATIONS [ADDRESS FUNCTION PASS ERRNO]...
// [new|nothrow N]: one life with the given faults, then another without, which must go well, and what is held when all
// has ended: not more, it is hoped, than the four numbers. Tells the places that call the system and how often each was
// passed; faults.py runs it for all of them.
#include <grp.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "Lives.h"
#include "Process.h"
#include "SystemCalls.h"

using namespace nipctest;
using namespace std::chrono_literals;

namespace {

void plan(const std::vector<std::string>& words) {
    for (std::size_t i = 0; i + 1 < words.size();) {
        if (words[i] == "new" || words[i] == "nothrow") {
            planShortage(words[i] == "new", static_cast<unsigned>(std::stoul(words[i + 1])));
            i += 2;
        } else {
            planFault(static_cast<std::uintptr_t>(std::stoull(words[i], nullptr, 16)), words.at(i + 1),
                      static_cast<unsigned>(std::stoul(words.at(i + 2))), std::stoi(words.at(i + 3)));
            i += 4;
        }
    }
}

std::size_t sharedMappings() {
    std::ifstream maps("/proc/self/maps");
    std::size_t count = 0;
    for (std::string line; std::getline(maps, line);) count += line.find("memfd:") != std::string::npos;
    return count;
}

using Held = std::array<std::size_t, 4>;

Held held(std::ptrdiff_t own) {
    return {descriptorCount(getpid()), taskCount(getpid()), sharedMappings(),
            static_cast<std::size_t>(liveAllocations() - own)};
}

// Threads of what has ended may still be on their way out: looks until it sees no more than expected, or no change.
Held settled(std::ptrdiff_t own, const Held& expected) {
    Held last = held(own);
    const int patience = expected[0] == 0 ? 100 : 1000;
    for (int same = 0; same < patience; ++same) {
        const bool fits = std::equal(last.begin(), last.end(), expected.begin(), std::less_equal<>());
        if (fits) break;
        std::this_thread::sleep_for(2ms);
        const Held now = held(own);
        if (std::exchange(last, now) != now) same = 0;
    }
    return last;
}

}  // namespace

int main(int argc, char** argv) {
    const OwnAllocations mine;
    const std::vector<std::string> words(argv + 1, argv + argc);
    if (words.size() < 5) return 2;
    const ServiceDirectory parent;
    const std::string directory = parent.path + "/made/by/service";
    setenv("NEX_NIPC_DIR", directory.c_str(), 1);
    setenv("NEX_NIPC_SYNC_TIMEOUT_MS", "3000", 1);
    if (const group* const own = getgrgid(getegid())) setenv("NEX_NIPC_GROUP", own->gr_name, 1);
    Held expected{};
    for (std::size_t i = 0; i < expected.size(); ++i) expected[i] = std::stoul(words[i + 1]);
    plan({words.begin() + 5, words.end()});

    const auto live = words[0] == "connector" ? connectorLife : platformLife;
    const std::ptrdiff_t own = liveAllocations();
    armFaults();
    std::printf("first %s\n", live(directory).c_str());
    disarmFaults();
    const int tries = words[0] == "connector" ? 5 : 1;
    for (int tried = 1; tried <= tries; ++tried) {
        const std::string again = live(directory);
        if (!again.empty() && tried < tries) continue;
        std::printf("again %s\ncaused %u\n", again.c_str(), faultsCaused());
        break;
    }
    const Held left = settled(own, expected);
    std::printf("held %zu %zu %zu %zu\n", left[0], left[1], left[2], left[3]);
    sayPasses();
    return 0;
}
