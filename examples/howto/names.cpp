// Names that are checked by the compiler.
#include <cstddef>

#include "nipcconnector/FunctionId.h"

namespace {

// [names]
constexpr const char* names[] = {"getTemperature", "setTarget", "readSensors", "temperatureChanged"};

constexpr bool allDiffer() {
    for (std::size_t i = 0; i < sizeof(names) / sizeof(*names); ++i)
        for (std::size_t j = 0; j < i; ++j)
            if (nipcconnector::computeFunctionId(names[i]) == nipcconnector::computeFunctionId(names[j])) return false;
    return true;
}
static_assert(allDiffer(), "two names of this service have one identifier: rename one");
// [names]

}  // namespace

int main() { return allDiffer() ? 0 : 1; }
