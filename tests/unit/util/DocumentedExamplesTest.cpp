#include <gtest/gtest.h>

#include "smarthome/StringUtils.h"

namespace {

// Derived, so that the examples can call the operations by their plain names.
struct Examples : smarthome::StringUtils {
    static void check() {  // NOLINT(readability-function-size): generated
        int operations = 0;
        int examples = 0;
#include "documented_examples.inc"
        EXPECT_GT(operations, 0);
        EXPECT_EQ(examples, operations);
    }
};

}  // namespace

TEST(StringUtilsHeader, HasOneTrueExampleForEachOperation) { Examples::check(); }
