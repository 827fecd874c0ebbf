#include <gtest/gtest.h>

#include <locale>
#include <map>
#include <string>
#include <vector>

#include "smarthome/StringUtils.h"

using smarthome::StringUtils;
using Bytes = std::vector<unsigned char>;
using namespace std::string_literals;

namespace {

struct GroupsEveryDigit : std::numpunct<char> {
    std::string do_grouping() const override { return "\1"; }
    char do_thousands_sep() const override { return '.'; }
};

}  // namespace

TEST(Hex, DecodesPairsAsStrtolReadsThem) {
    const std::map<std::string, Bytes> rows = {{"0AFf", {0x0a, 0xff}},
                                               {"1gzz", {0x01, 0x00}},
                                               {" f-1", {0x0f, 0xff}},
                                               {"0x1f", {0x00, 0x1f}},
                                               {"1\0\0001"s, {1, 0}},
                                               {"", {}},
                                               {"abc", {}}};
    for (const auto& [hex, bytes] : rows) {
        EXPECT_EQ(StringUtils::hexStringToByteVector(hex), bytes) << hex;
        Bytes out(3, 0xee);
        Bytes expected = bytes;
        expected.resize(out.size(), 0xee);
        StringUtils::hexStringToByteArray(hex, out.data());
        EXPECT_EQ(out, expected) << hex;
    }
    StringUtils::hexStringToByteArray("", nullptr);
}

TEST(Hex, IsPrintedWithoutSeparatorsWhateverTheLocale) {
    const std::locale before = std::locale::global(std::locale(std::locale::classic(), new GroupsEveryDigit));
    EXPECT_EQ(StringUtils::byteVectorToHexString({0x00, 0x0a, 0xff}), "000aff");
    EXPECT_EQ(StringUtils::byteVectorToHexString({}), "");
    EXPECT_EQ(StringUtils::uint64ToHexString(0), "0");
    EXPECT_EQ(StringUtils::uint64ToHexString(0xfedcba9876543210ULL), "fedcba9876543210");
    EXPECT_EQ(StringUtils::uint64ToHexString(1, 255), std::string(254, '0') + "1");
    EXPECT_EQ(StringUtils::uint64ToHex2sComplementString(0), "0");
    EXPECT_EQ(StringUtils::uint64ToHex2sComplementString(1), "ffffffffffffffff");
    EXPECT_EQ(StringUtils::uint64ToHex2sComplementString(1ULL << 63), "8000000000000000");
    std::locale::global(before);
}

TEST(Utf8, AcceptsSequencesAlsoOverlongAndBeyondTheLastCharacter) {
    for (const std::string& s : {""s, "a\0\x7F"s, "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"s, "\xED\x9F\xBF\xEE\x80\x80"s,
                                 "\xC0\x80\xE0\x80\x80\xF0\x80\x80\x80"s, "\xF7\xBF\xBF\xBF"s}) {
        EXPECT_TRUE(StringUtils::isValidUtf8String(s)) << s;
        EXPECT_EQ(StringUtils::removeNonUtf8Characters(s), s);
    }
}

TEST(Utf8, RefusesAndRemovesBrokenSequencesAndSurrogates) {
    // In hexadecimal, before and after the removal.
    const std::map<std::string, std::string> rows = {
        {"61eda08062", "6162"},   {"61edbf6263", "6163"},  {"61ede96263", "6163"}, {"61edc3a962", "6162"},
        {"61ed616263", "616263"}, {"61eda0", "61"},        {"61ed", "61"},         {"618062", "6162"},
        {"61f888ff62", "6162"},   {"61c34162", "6162"},    {"61e2824162", "6162"}, {"61e24162", "6162"},
        {"61f09f984162", "6162"}, {"61c3c3a962", "6162"},  {"61e282", "61"},       {"61c3", "61"},
        {"61f09f98", "61"},       {"61f880808062", "6162"}};
    for (const auto& [before, after] : rows) {
        const std::string s = StringUtils::byteVectorToString(StringUtils::hexStringToByteVector(before));
        const std::string cleaned = StringUtils::removeNonUtf8Characters(s);
        EXPECT_FALSE(StringUtils::isValidUtf8String(s)) << before;
        EXPECT_EQ(StringUtils::byteVectorToHexString({cleaned.begin(), cleaned.end()}), after) << before;
    }
}
