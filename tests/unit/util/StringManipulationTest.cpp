#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "smarthome/StringUtils.h"

using smarthome::StringUtils;
using Fields = std::vector<std::string>;
using namespace std::string_literals;

namespace {

// The largest block that this thread may allocate.
thread_local std::size_t largestBlock = ~std::size_t{0};

Fields splitBraces(const char* list, const char* delimiter) {
    return StringUtils::splitStrIgnoringSubStrInBrackets(list, delimiter);
}

}  // namespace

void* operator new(std::size_t size) {
    void* block = size <= largestBlock ? std::malloc(size) : nullptr;
    if (block == nullptr) throw std::bad_alloc();
    return block;
}

// Not inlined: where only one of the pair is, the compiler takes it for the wrong one.
[[gnu::noinline]] void operator delete(void* block) noexcept { std::free(block); }
[[gnu::noinline]] void operator delete(void* block, std::size_t) noexcept { std::free(block); }

TEST(Removing, KeepsWhatEachOperationKeeps) {
    const std::string spaces = "\t\n\v\f\r ";
    EXPECT_EQ(StringUtils::trim(spaces), "");
    EXPECT_EQ(StringUtils::trim("\xA0 x \x85"), "\xA0 x \x85");
    EXPECT_EQ(StringUtils::trim(" \0 "s), "\0"s);
    EXPECT_EQ(StringUtils::removeWhiteSpaces(" a" + spaces + "b\xA0 "), "ab\xA0");
    EXPECT_EQ(StringUtils::stripCharacter("\0a\0"s, '\0'), "a");
    EXPECT_EQ(StringUtils::stripCharacter("\xE9z\xE9", '\xE9'), "z");

    std::string every, printable;
    for (int c = 0; c < 256; ++c) every += static_cast<char>(c);
    for (char c = '!'; c <= '~'; ++c) printable += c;
    std::string special = every, endpoint = every;
    EXPECT_EQ(&StringUtils::removeSpecialCharacters(special), &special);
    EXPECT_EQ(special, spaces + printable);
    EXPECT_TRUE(StringUtils::sanitizeEndpointId(endpoint));
    EXPECT_EQ(endpoint, spaces + "#&-0123456789:;=?@ABCDEFGHIJKLMNOPQRSTUVWXYZ_abcdefghijklmnopqrstuvwxyz");
}

TEST(EndpointId, HasOneTo256Characters) {
    for (const std::size_t size : {0U, 1U, 256U, 257U}) {
        std::string id = std::string(size, 'a') + "./\"";
        EXPECT_EQ(StringUtils::sanitizeEndpointId(id), size == 1 || size == 256) << size;
        EXPECT_EQ(id.size(), size);
    }
}

TEST(Shaping, MergesComparesReplacesAndJoins) {
    EXPECT_EQ(StringUtils::camelMerge("get", ""), "get");
    EXPECT_EQ(StringUtils::camelMerge("", "\xE9t\xE9"), "\xE9t\xE9");
    EXPECT_EQ(StringUtils::toLowerCase("Az[`{\xC9"), "az[`{\xC9");
    EXPECT_EQ(StringUtils::toUpperCase("aZ[`{\xE9"), "AZ[`{\xE9");
    EXPECT_FALSE(StringUtils::startsWith("abc", "b"));
    EXPECT_TRUE(StringUtils::startsWith("", ""));
    EXPECT_FALSE(StringUtils::hasSuffix("bc", "abc"));
    EXPECT_FALSE(StringUtils::hasSuffix("abc", "b"));
    EXPECT_EQ(StringUtils::replaceAll("aaa", "aa", "b"), "ba");
    EXPECT_EQ(StringUtils::replaceAll("aab", "ab", "b"), "ab");
    EXPECT_EQ(StringUtils::replaceAll("a-b-", "-", ""), "ab");
    EXPECT_EQ(StringUtils::replaceAll("abc", "", "x"), "abc");
    EXPECT_EQ(StringUtils::concatenate({"a", "", "b"}, ""), "ab");
    EXPECT_EQ(StringUtils::concatenate({"", ""}, "-"), "-");
    EXPECT_EQ(StringUtils::concatenate({"a,"}, ","), "a,");
    EXPECT_EQ(StringUtils::concatenate({}, ", "), "");
    EXPECT_EQ(StringUtils::getSubStrInOutermostBracket("ab{cd}ef"), "cd}e");
    EXPECT_EQ(StringUtils::getSubStrInOutermostBracket("ab{cd}"), "cd}");
    EXPECT_EQ(StringUtils::getSubStrInOutermostBracket("}a{bc"), "bc");
    for (const char* text : {"", "{}", "ab}", "{ab", "a}b{cd"}) {
        EXPECT_EQ(StringUtils::getSubStrInOutermostBracket(text), "") << text;
    }
}

TEST(Splitting, FollowsTheRulesOfEachOverload) {
    EXPECT_EQ(StringUtils::split(",a", ','), (Fields{"", "a"}));
    EXPECT_EQ(StringUtils::split(",", ','), (Fields{""}));
    EXPECT_EQ(StringUtils::split("", ','), Fields{});
    EXPECT_EQ(StringUtils::split("a\nb,c", ','), (Fields{"a\nb", "c"}));

    EXPECT_EQ(StringUtils::split("a,b,c", ',', 2147483647), (Fields{"a", "b", "c"}));
    EXPECT_EQ(StringUtils::split("a\nb,c,d\ne", ',', 2), (Fields{"a\nb", "c,d"}));
    EXPECT_EQ(StringUtils::split("a,", ',', 2), (Fields{"a"}));
    EXPECT_EQ(StringUtils::split("a,\n", ',', 2), (Fields{"a", ""}));
    for (const int limit : {1, 0, -2147483647 - 1}) {
        EXPECT_EQ(StringUtils::split("a,b\nc", ',', limit), (Fields{"a,b\nc"}));
        EXPECT_EQ(StringUtils::split("", ',', limit), Fields{});
    }

    EXPECT_EQ(StringUtils::split("a---b", "--"), (Fields{"a", "-b"}));
    EXPECT_EQ(StringUtils::split("ab", ""), (Fields{"ab"}));
    EXPECT_EQ(StringUtils::split("", "--"), Fields{});
}

TEST(BraceAwareSplit, CutsBetweenBracedElements) {
    EXPECT_EQ(splitBraces("{a,b},{c}", ","), (Fields{"{a,b}", "{c}"}));
    EXPECT_EQ(splitBraces("{a}", ","), (Fields{"{a}"}));
    EXPECT_EQ(splitBraces("{a}--{--}--{}", "--"), (Fields{"{a}", "{--}", "{}"}));
    EXPECT_EQ(splitBraces("", ","), Fields{});
}

TEST(BraceAwareSplit, KeepsToItsStepsOnOtherLists) {
    EXPECT_EQ(splitBraces("a", ","), (Fields{"", ""}));
    EXPECT_EQ(splitBraces("{a},", ","), (Fields{"{a}", ""}));
    EXPECT_EQ(splitBraces("a,{b}", ","), (Fields{"a", "{b}"}));
    EXPECT_EQ(splitBraces("{{a},{b}}", ","), (Fields{"{{a}", "{b}", ""}));
    EXPECT_EQ(splitBraces("{a}{b}", ""), (Fields{"{a}", "{b}", ""}));
    for (const char* endless : {"a,b", "{a},b", "{a"}) {
        largestBlock = 1U << 20;
        EXPECT_THROW(splitBraces(endless, ","), std::bad_alloc) << endless;
        largestBlock = ~std::size_t{0};
    }
}
