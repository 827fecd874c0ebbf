#include <gtest/gtest.h>

#include <limits>
#include <map>
#include <optional>
#include <string>

#include "smarthome/StringUtils.h"

using smarthome::StringUtils;

namespace {

constexpr auto maxInt64 = std::numeric_limits<long long>::max();
constexpr auto minInt64 = std::numeric_limits<long long>::min();
constexpr auto maxUInt64 = std::numeric_limits<unsigned long long>::max();

// What the parser stored, or nothing when it failed; a failure that wrote all the same shows as what it wrote.
template <typename Number, typename... Base>
std::optional<Number> read(bool (*parser)(const char*, Number*, Base...), const char* text, Base... base) {
    Number value = 77;
    if (parser(text, &value, base...) || value != 77) return value;
    return std::nullopt;
}

template <typename Number, typename... Base>
void expectRefusal(bool (*parser)(const char*, Number*, Base...), std::initializer_list<const char*> texts,
                   Base... base) {
    for (const char* text : texts) EXPECT_EQ(read(parser, text, base...), std::nullopt) << text;
    EXPECT_EQ(read(parser, nullptr, base...), std::nullopt);
    EXPECT_FALSE(parser("1", nullptr, base...));
}

}  // namespace

TEST(StrictParsing, TakesWholeNumbersOfTheRange) {
    EXPECT_EQ(read(&StringUtils::stringToInt64, " \t-12 \v\n", 10), -12);
    EXPECT_EQ(read(&StringUtils::stringToInt64, "017", 0), 15);
    EXPECT_EQ(read(&StringUtils::stringToInt64, "zz", 36), 35 * 36 + 35);
    EXPECT_EQ(read(&StringUtils::stringToInt64, "9223372036854775807", 10), maxInt64);
    EXPECT_EQ(read(&StringUtils::stringToInt64, "-9223372036854775808", 10), minInt64);
    EXPECT_EQ(read(&StringUtils::stringToUInt64, "18446744073709551615", 10), maxUInt64);
    EXPECT_EQ(read(&StringUtils::stringToInt, "2147483647"), 2147483647);
    EXPECT_EQ(read(&StringUtils::stringToInt, "010"), 10);
    EXPECT_EQ(read(&StringUtils::stringToUInt32, "-0"), 0U);
    EXPECT_EQ(read(&StringUtils::stringToUInt16, "0xffff", 0), 65535);
    EXPECT_EQ(read(&StringUtils::stringToUInt8, "255", 10), 255);
    EXPECT_EQ(read(&StringUtils::stringToUInt8, "-18446744073709551615", 10), 1);
    EXPECT_EQ(read(&StringUtils::stringToDouble, " -2e3"), -2000.0);
    EXPECT_EQ(read(&StringUtils::stringToDouble, "0x1p4"), 16.0);
    EXPECT_EQ(read(&StringUtils::stringToDouble, "inf"), std::numeric_limits<double>::infinity());
}

TEST(StrictParsing, RefusesAllElseAndWritesNothing) {
    const char* const everyBitOf64 = "-18446744073709551615";
    expectRefusal(&StringUtils::stringToInt64,
                  {"", "  ", "+", "12x", "12 3", "12\xA0", "0x1F", "9223372036854775808", "-9223372036854775809"}, 10);
    for (const int base : {-1, 1, 37}) expectRefusal(&StringUtils::stringToInt64, {"1"}, base);
    expectRefusal(&StringUtils::stringToUInt64, {"18446744073709551616", "fg"}, 16);
    expectRefusal(&StringUtils::stringToInt, {"2147483648", "-2147483649", "4294967296", "0x10"});
    expectRefusal(&StringUtils::stringToInt32, {"2147483648"});
    expectRefusal(&StringUtils::stringToUInt32, {"4294967296", "-1", everyBitOf64});
    expectRefusal(&StringUtils::stringToUInt16, {"65536", "-1", everyBitOf64}, 10);
    expectRefusal(&StringUtils::stringToUInt8, {"256", "-1", "9223372036854775808"}, 10);
    expectRefusal(&StringUtils::stringToDouble, {"", "abc", ".", "nan", "-nan(1)", "1e999", "1e-999"});
}

TEST(LenientParsing, ReadsWhatComesFirst) {
    using Row = std::pair<const char*, int>;
    for (const auto& [text, value] :
         {Row("0x1A", 26), Row("  -0x1A", -26), Row("0X1A", 0), Row("+10x", 16), Row("a0x1", 160), Row("00x1", 0),
          Row("12 0x", 18), Row("0x1x0x", 1), Row("010", 10), Row("-1", -1), Row("-2147483648", -2147483647 - 1),
          Row("0x7fffffff", 2147483647)}) {
        EXPECT_EQ(StringUtils::toInt(text), std::make_pair(true, value)) << text;
    }
    for (const char* text : {"abc", "", "0x", "x0x1", "2147483648", "-2147483649", "0xffffffff"}) {
        EXPECT_EQ(StringUtils::toInt(text), std::make_pair(false, -1)) << text;
    }

    EXPECT_EQ(StringUtils::toInt64(std::string("12\0x", 4)), std::make_pair(true, 12LL));
    EXPECT_EQ(StringUtils::toInt64("-9223372036854775808"), std::make_pair(true, minInt64));
    for (const char* text : {"", " ", "12x", "9223372036854775808", "0x10"}) {
        EXPECT_EQ(StringUtils::toInt64(text), std::make_pair(false, 0LL)) << text;
    }

    const std::map<const char*, unsigned long long> hexes = {
        {"0xff", 255}, {"FFg", 255}, {"10x", 16}, {" 0xff", 255}, {"-0x5", maxUInt64 - 4}, {"0X5", 0}};
    for (const auto& [text, value] : hexes) {
        EXPECT_EQ(StringUtils::hexStringToUint64(text), std::make_pair(true, value)) << text;
    }
    EXPECT_EQ(StringUtils::hexStringToUint64("fedcba9876543210").second, 0xfedcba9876543210);
    for (const char* text : {"", "zz", " ff", "-5", "10000000000000000"}) {
        EXPECT_EQ(StringUtils::hexStringToUint64(text), std::make_pair(false, maxUInt64)) << text;
    }
}
