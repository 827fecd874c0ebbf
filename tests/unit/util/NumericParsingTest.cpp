#include <gtest/gtest.h>

#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <limits>
#include <optional>
#include <string>

#include "Generated.h"
#include "smarthome/StringUtils.h"

using smarthome::StringUtils;

namespace {

constexpr auto maxInt64 = std::numeric_limits<long long>::max();
constexpr auto minInt64 = std::numeric_limits<long long>::min();
constexpr auto maxUInt64 = std::numeric_limits<unsigned long long>::max();

// What the parser stored, or nothing when it failed; a failure that wrote all the same shows as the value written.
template <typename Number, typename... Base>
std::optional<Number> parsed(bool (*parser)(const char*, Number*, Base...), const char* text, Base... base) {
    Number value = 77;
    const bool success = parser(text, &value, base...);
    if (success || value != 77) return value;
    return std::nullopt;
}

template <typename Number>
struct Row {
    const char* text;
    int base;
    std::optional<Number> expected;
};

template <typename Number, typename... Base>
void checkStrict(bool (*parser)(const char*, Number*, Base...), std::initializer_list<Row<Number>> rows) {
    for (const Row<Number>& row : rows) {
        if constexpr (sizeof...(Base) == 0) {
            EXPECT_EQ(parsed(parser, row.text), row.expected) << row.text;
            EXPECT_FALSE(parser(row.text, nullptr)) << row.text;
        } else {
            EXPECT_EQ(parsed(parser, row.text, row.base), row.expected) << row.text << " in base " << row.base;
            EXPECT_FALSE(parser(row.text, nullptr, row.base)) << row.text;
        }
    }
    if constexpr (sizeof...(Base) == 0)
        EXPECT_EQ(parsed(parser, nullptr), std::nullopt);
    else
        EXPECT_EQ(parsed(parser, nullptr, 10), std::nullopt);
}

}  // namespace

TEST(StrictParsing, TakesWholeNumbersOfTheRangeAndNothingElse) {
    const auto no = std::nullopt;
    checkStrict<long long>(&StringUtils::stringToInt64, {{"", 10, no},
                                                         {"  ", 10, no},
                                                         {"+", 10, no},
                                                         {" \t-12 \v\n", 10, -12},
                                                         {"12x", 10, no},
                                                         {"12 3", 10, no},
                                                         {"12\xA0", 10, no},
                                                         {"0x1F", 0, 31},
                                                         {"0x1F", 16, 31},
                                                         {"0x1F", 10, no},
                                                         {"017", 0, 15},
                                                         {"zz", 36, 35 * 36 + 35},
                                                         {"1", 1, no},
                                                         {"1", 37, no},
                                                         {"1", -1, no},
                                                         {"9223372036854775807", 10, maxInt64},
                                                         {"9223372036854775808", 10, no},
                                                         {"-9223372036854775808", 10, minInt64},
                                                         {"-9223372036854775809", 10, no}});
    checkStrict<unsigned long long>(&StringUtils::stringToUInt64, {{"18446744073709551615", 10, maxUInt64},
                                                                   {"18446744073709551616", 10, no},
                                                                   {"-1", 10, maxUInt64},
                                                                   {"ff ", 16, 255ULL},
                                                                   {"fg", 16, no}});
    for (const auto parser : {&StringUtils::stringToInt, &StringUtils::stringToInt32}) {
        checkStrict<int>(parser, {{"2147483647", 10, 2147483647},
                                  {"2147483648", 10, no},
                                  {"-2147483648", 10, -2147483647 - 1},
                                  {"-2147483649", 10, no},
                                  {"4294967296", 10, no},
                                  {"0x10", 10, no},
                                  {"010", 10, 10}});
    }
    checkStrict<unsigned int>(&StringUtils::stringToUInt32, {{"4294967295", 10, 4294967295U},
                                                             {"4294967296", 10, no},
                                                             {"-1", 10, no},
                                                             {"-0", 10, 0U},
                                                             {"-18446744073709551615", 10, no}});
    using UInt16 = unsigned short;
    checkStrict<UInt16>(&StringUtils::stringToUInt16, {{"65535", 10, UInt16{65535}},
                                                       {"65536", 10, no},
                                                       {"-1", 10, no},
                                                       {"-18446744073709551615", 10, no},
                                                       {"0xffff", 0, UInt16{65535}}});
    using UInt8 = unsigned char;
    checkStrict<UInt8>(&StringUtils::stringToUInt8, {{"255", 10, UInt8{255}},
                                                     {"256", 10, no},
                                                     {"-1", 10, no},
                                                     {"-18446744073709551615", 10, UInt8{1}},
                                                     {"9223372036854775808", 10, no}});
}

TEST(StrictParsing, ReadsDoublesWithoutLookingAtWhatFollows) {
    const auto no = std::nullopt;
    checkStrict<double>(&StringUtils::stringToDouble, {{"1.5abc", 0, 1.5},
                                                       {" -2e3", 0, -2000.0},
                                                       {"0x1p4", 0, 16.0},
                                                       {"inf", 0, std::numeric_limits<double>::infinity()},
                                                       {"nan", 0, no},
                                                       {"-nan(1)", 0, no},
                                                       {"1e999", 0, no},
                                                       {"1e-999", 0, no},
                                                       {"", 0, no},
                                                       {"abc", 0, no},
                                                       {".", 0, no}});
}

TEST(LenientParsing, ReadsWhatComesFirst) {
    const struct {
        std::string text;
        std::pair<bool, int> expected;
    } ints[] = {
        {"12abc", {true, 12}},
        {"abc", {false, -1}},
        {"", {false, -1}},
        {"0x1A", {true, 26}},
        {"  -0x1A", {true, -26}},
        {"0X1A", {true, 0}},
        {"10x", {true, 16}},
        {"+10x", {true, 16}},
        {"a0x1", {true, 160}},
        {"00x1", {true, 0}},
        {"0x", {false, -1}},
        {"x0x1", {false, -1}},
        {"12 0x", {true, 18}},
        {"0x1x0x", {true, 1}},
        {"010", {true, 10}},
        {"2147483648", {false, -1}},
        {"0xffffffff", {false, -1}},
        {"-1", {true, -1}},
        {"0x7fffffff", {true, 2147483647}},
    };
    for (const auto& row : ints) EXPECT_EQ(StringUtils::toInt(row.text), row.expected) << row.text;

    using namespace std::string_literals;
    const std::pair<bool, long long> no64{false, 0};
    EXPECT_EQ(StringUtils::toInt64(" -12 "), std::make_pair(true, -12LL));
    EXPECT_EQ(StringUtils::toInt64("12\0x"s), std::make_pair(true, 12LL));
    for (const char* text : {"", " ", "12x", "9223372036854775808", "0x10"}) {
        EXPECT_EQ(StringUtils::toInt64(text), no64) << text;
    }

    const std::pair<bool, unsigned long long> noHex{false, maxUInt64};
    const struct {
        const char* text;
        std::pair<bool, unsigned long long> expected;
    } hexes[] = {
        {"ff", {true, 255}},
        {"0xff", {true, 255}},
        {"FFg", {true, 255}},
        {"10x", {true, 16}},
        {" ff", noHex},
        {" 0xff", {true, 255}},
        {"-5", noHex},
        {"-0x5", {true, maxUInt64 - 4}},
        {"0X5", {true, 0}},
        {"zz", noHex},
        {"", noHex},
        {"ffffffffffffffff", {true, maxUInt64}},
        {"10000000000000000", noHex},
    };
    for (const auto& row : hexes) EXPECT_EQ(StringUtils::hexStringToUint64(row.text), row.expected) << row.text;
}

TEST(NumericParsing, ReadsBackWhatWasPrinted) {
    Generated generated;
    for (int i = 0; i < 5000; ++i) {
        const unsigned long long bits = generated.number();
        const auto value = static_cast<long long>(bits);
        const std::string text = std::to_string(value);
        EXPECT_EQ(parsed<long long>(&StringUtils::stringToInt64, text.c_str(), 10), value);
        EXPECT_EQ(StringUtils::toInt64(text), std::make_pair(true, value));
        EXPECT_EQ(parsed<unsigned long long>(&StringUtils::stringToUInt64, std::to_string(bits).c_str(), 10), bits);
        EXPECT_EQ(StringUtils::hexStringToUint64(StringUtils::uint64ToHexString(bits)), std::make_pair(true, bits));
        const bool fits = value >= std::numeric_limits<int>::min() && value <= std::numeric_limits<int>::max();
        EXPECT_EQ(StringUtils::toInt(text),
                  fits ? std::make_pair(true, static_cast<int>(value)) : std::make_pair(false, -1));
    }
}
