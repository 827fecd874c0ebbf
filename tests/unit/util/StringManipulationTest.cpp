#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "Generated.h"
#include "smarthome/StringUtils.h"

using smarthome::StringUtils;
using Fields = std::vector<std::string>;
using namespace std::string_literals;

namespace {

// The largest block that this thread may allocate.
thread_local std::size_t largestBlock = ~std::size_t{0};

}  // namespace

void* operator new(std::size_t size) {
    void* block = size <= largestBlock ? std::malloc(size) : nullptr;
    if (block == nullptr) throw std::bad_alloc();
    return block;
}

void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }

TEST(Removing, KeepsWhatEachOperationKeeps) {
    std::string every;
    for (int c = 0; c < 256; ++c) every += static_cast<char>(c);
    const auto special = [](std::string s) { return StringUtils::removeSpecialCharacters(s); };
    const auto endpoint = [](std::string s) { return StringUtils::sanitizeEndpointId(s), s; };
    std::string printable;
    for (char c = ' '; c <= '~'; ++c) printable += c;
    const std::string spaces = "\t\n\v\f\r";
    const std::string upper = "ABCDEFGHIJKLMNOPQRSTUVWXYZ", lower = "abcdefghijklmnopqrstuvwxyz";

    const struct {
        const char* what;
        std::string result, expected;
    } rows[] = {
        {"trim", StringUtils::trim(" \t a b \n"), "a b"},
        {"trim spaces only", StringUtils::trim(spaces + " "), ""},
        {"trim bytes above 0x7f", StringUtils::trim("\xA0 x \x85"), "\xA0 x \x85"},
        {"trim zero bytes", StringUtils::trim(" \0 "s), "\0"s},
        {"white space", StringUtils::removeWhiteSpaces(" a" + spaces + "b\xA0 "), "ab\xA0"},
        {"character", StringUtils::stripCharacter("-a--b-", '-'), "ab"},
        {"zero byte", StringUtils::stripCharacter("\0a\0"s, '\0'), "a"},
        {"byte above 0x7f", StringUtils::stripCharacter("\xE9z\xE9", '\xE9'), "z"},
        {"special", special(every), spaces + printable},
        {"endpoint", endpoint(every), spaces + " #&-0123456789:;=?@" + upper + "_" + lower},
    };
    for (const auto& row : rows) EXPECT_EQ(row.result, row.expected) << row.what;
}

TEST(Removing, ReturnsTheVeryString) {
    std::string s = "a\x01";
    EXPECT_EQ(&StringUtils::removeSpecialCharacters(s), &s);
}

TEST(EndpointId, HasOneTo256Characters) {
    const struct {
        std::string before, after;
        bool expected;
    } rows[] = {
        {"dev.01/Kitchen Light", "dev01Kitchen Light", true},
        {"...", "", false},
        {"", "", false},
        {std::string(256, 'a') + "...", std::string(256, 'a'), true},
        {std::string(257, 'a') + ".", std::string(257, 'a'), false},
    };
    for (auto row : rows) {
        EXPECT_EQ(StringUtils::sanitizeEndpointId(row.before), row.expected) << row.after;
        EXPECT_EQ(row.before, row.after);
    }
}

TEST(Shaping, MergesComparesReplacesAndJoins) {
    const struct {
        std::string result, expected;
    } rows[] = {
        {StringUtils::camelMerge("get", "value"), "getValue"},
        {StringUtils::camelMerge("get", ""), "get"},
        {StringUtils::camelMerge("", "\xE9t\xE9"), "\xE9t\xE9"},
        {StringUtils::toLowerCase("Az[`{\xC9"), "az[`{\xC9"},
        {StringUtils::toUpperCase("aZ[`{\xE9"), "AZ[`{\xE9"},
        {StringUtils::replaceAll("aaa", "a", "aa"), "aaaaaa"},
        {StringUtils::replaceAll("aaa", "aa", "b"), "ba"},
        {StringUtils::replaceAll("a-b-", "-", ""), "ab"},
        {StringUtils::replaceAll("aab", "ab", "b"), "ab"},
        {StringUtils::replaceAll("abc", "", "x"), "abc"},
        {StringUtils::replaceAll("", "a", "x"), ""},
        {StringUtils::concatenate({"a", "b", "c"}, ", "), "a, b, c"},
        {StringUtils::concatenate({"a", "b", "c"}, nullptr), "abc"},
        {StringUtils::concatenate({"a", "", "b"}, ""), "ab"},
        {StringUtils::concatenate({"", ""}, "-"), "-"},
        {StringUtils::concatenate({"a,"}, ","), "a,"},
        {StringUtils::concatenate({}, ", "), ""},
        {StringUtils::getSubStrInOutermostBracket("{x{y}z}"), "x{y}z"},
        {StringUtils::getSubStrInOutermostBracket("ab{cd}ef"), "cd}e"},
        {StringUtils::getSubStrInOutermostBracket("ab{cd}"), "cd}"},
        {StringUtils::getSubStrInOutermostBracket("{}"), ""},
        {StringUtils::getSubStrInOutermostBracket("}a{bc"), "bc"},
        {StringUtils::getSubStrInOutermostBracket("a}b{cd"), ""},
        {StringUtils::getSubStrInOutermostBracket("{ab"), ""},
        {StringUtils::getSubStrInOutermostBracket("ab}"), ""},
        {StringUtils::getSubStrInOutermostBracket(""), ""},
    };
    for (const auto& row : rows) EXPECT_EQ(row.result, row.expected);

    EXPECT_FALSE(StringUtils::startsWith("ab", "abc"));
    EXPECT_FALSE(StringUtils::startsWith("abc", "b"));
    EXPECT_TRUE(StringUtils::startsWith("", ""));
    EXPECT_FALSE(StringUtils::hasSuffix("bc", "abc"));
    EXPECT_FALSE(StringUtils::hasSuffix("abc", "b"));
    EXPECT_TRUE(StringUtils::hasSuffix("", ""));
}

TEST(Splitting, FollowsTheRulesOfEachOverload) {
    const auto split = [](auto... arguments) { return StringUtils::split(arguments...); };
    const struct {
        const char* what;
        Fields result, expected;
    } rows[] = {
        {"empty fields", split("a,,b,", ','), {"a", "", "b"}},
        {"leading delimiter", split(",a", ','), {"", "a"}},
        {"delimiter alone", split(",", ','), {""}},
        {"nothing", split("", ','), {}},
        {"newlines", split("a\nb,c", ','), {"a\nb", "c"}},
        {"limit", split("a,b,c", ',', 2), {"a", "b,c"}},
        {"limit above the fields", split("a,b", ',', 9), {"a", "b"}},
        {"newline in the last field", split("a,b\nc", ',', 2), {"a", "b"}},
        {"newline before the last field", split("a\nb,c\nd", ',', 2), {"a\nb", "c"}},
        {"nothing left for the last field", split("a,", ',', 2), {"a"}},
        {"newline alone left", split("a,\n", ',', 2), {"a", ""}},
        {"limit 1", split("a,b\nc", ',', 1), {"a,b\nc"}},
        {"limit 0", split("a,b", ',', 0), {"a,b"}},
        {"lowest limit", split("a,b", ',', -2147483647 - 1), {"a,b"}},
        {"highest limit", split("a,b", ',', 2147483647), {"a", "b"}},
        {"nothing, limit 0", split("", ',', 0), {}},
        {"string", split("a--b--", "--"), {"a", "b", ""}},
        {"overlapping string", split("a---b", "--"), {"a", "-b"}},
        {"no such string", split("ab", "--"), {"ab"}},
        {"empty string", split("ab", ""), {"ab"}},
        {"nothing by a string", split("", "--"), {}},
    };
    for (const auto& row : rows) EXPECT_EQ(row.result, row.expected) << row.what;
}

TEST(Splitting, JoinsBackToTheInput) {
    Generated generated;
    for (int i = 0; i < 3000; ++i) {
        const std::string s = generated.text("ab-", 12);
        const std::string delimiter = generated.text("-a", 2) + "-";
        std::string joined;
        for (const std::string& field : StringUtils::split(s, delimiter)) joined += field + delimiter;
        EXPECT_EQ(joined, s.empty() ? "" : s + delimiter);
    }
}

TEST(BraceAwareSplit, CutsBetweenBracedElements) {
    const struct {
        const char *list, *delimiter;
        Fields expected;
    } rows[] = {
        {"{a,b},{c}", ",", {"{a,b}", "{c}"}},
        {"{a}", ",", {"{a}"}},
        {"{a}--{--}--{}", "--", {"{a}", "{--}", "{}"}},
        {"{a},", ",", {"{a}", ""}},
        {"{a}{b}", "", {"{a}", "{b}", ""}},
        {"{{a},{b}}", ",", {"{{a}", "{b}", ""}},
        {"a", ",", {"", ""}},
        {"a,{b}", ",", {"a", "{b}"}},
        {"", ",", {}},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(StringUtils::splitStrIgnoringSubStrInBrackets(row.list, row.delimiter), row.expected) << row.list;
    }
}

TEST(BraceAwareSplit, NeverEndsOnOtherListsUntilMemoryRunsOut) {
    for (const char* list : {"a,b", "{a},b", "{a"}) {
        largestBlock = 1U << 20;
        EXPECT_THROW(StringUtils::splitStrIgnoringSubStrInBrackets(list, ","), std::bad_alloc) << list;
        largestBlock = ~std::size_t{0};
    }
}
