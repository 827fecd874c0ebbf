#include <gtest/gtest.h>

#include <locale>
#include <string>
#include <vector>

#include "Generated.h"
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
    const struct {
        std::string hex;
        Bytes expected;
    } rows[] = {
        {"0aff", {0x0a, 0xff}},
        {"0AFf", {0x0a, 0xff}},
        {"", {}},
        {"abc", {}},
        {"a", {}},
        {"1gzz", {0x01, 0x00}},
        {" f", {0x0f}},
        {"-1+2", {0xff, 0x02}},
        {"0x1f", {0x00, 0x1f}},
        {"1\0\0001"s, {0x01, 0x00}},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(StringUtils::hexStringToByteVector(row.hex), row.expected) << row.hex;
        Bytes out(row.hex.size() / 2 + 1, 0xee);
        StringUtils::hexStringToByteArray(row.hex, out.data());
        Bytes expected = row.expected;
        expected.resize(out.size(), 0xee);
        EXPECT_EQ(out, expected) << row.hex;
    }
    StringUtils::hexStringToByteArray("", nullptr);
}

TEST(Hex, IsPrintedInLowerCaseWhateverTheLocale) {
    const std::locale before = std::locale::global(std::locale(std::locale::classic(), new GroupsEveryDigit));
    const struct {
        std::string result, expected;
    } rows[] = {
        {StringUtils::byteVectorToHexString({0x00, 0x0a, 0xff}), "000aff"},
        {StringUtils::byteVectorToHexString({}), ""},
        {StringUtils::byteVectorToString({0x61, 0x00, 0xff}), "a\0\xff"s},
        {StringUtils::uint64ToHexString(0), "0"},
        {StringUtils::uint64ToHexString(0xfedcba9876543210ULL), "fedcba9876543210"},
        {StringUtils::uint64ToHexString(255, 4), "00ff"},
        {StringUtils::uint64ToHexString(74565, 2), "12345"},
        {StringUtils::uint64ToHexString(0, 0), "0"},
        {StringUtils::uint64ToHexString(1, 255), std::string(254, '0') + "1"},
        {StringUtils::uint64ToHex2sComplementString(0), "0"},
        {StringUtils::uint64ToHex2sComplementString(1), "ffffffffffffffff"},
        {StringUtils::uint64ToHex2sComplementString(2), "fffffffffffffffe"},
        {StringUtils::uint64ToHex2sComplementString(1ULL << 63), "8000000000000000"},
    };
    std::locale::global(before);
    for (const auto& row : rows) EXPECT_EQ(row.result, row.expected);
}

TEST(Hex, GoesThereAndBack) {
    Generated generated;
    std::string every;
    for (int c = 0; c < 256; ++c) every += static_cast<char>(c);
    for (int i = 0; i < 3000; ++i) {
        const std::string s = generated.text(every, 40);
        const Bytes bytes(s.begin(), s.end());
        EXPECT_EQ(StringUtils::hexStringToByteVector(StringUtils::byteVectorToHexString(bytes)), bytes);
        EXPECT_EQ(StringUtils::byteVectorToString(bytes), s);
    }
}

TEST(Utf8, IsCheckedAndCleanedByTheSameRules) {
    const struct {
        std::string s;
        bool valid;
        std::string cleaned;
    } rows[] = {
        {"", true, ""},
        {"a\0\x7F"s, true, "a\0\x7F"s},
        {"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", true, "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"},
        {"\xC0\x80\xE0\x80\x80\xF0\x80\x80\x80", true, "\xC0\x80\xE0\x80\x80\xF0\x80\x80\x80"},  // Overlong.
        {"\xF7\xBF\xBF\xBF", true, "\xF7\xBF\xBF\xBF"},                                          // Past the end.
        {"\xED\x9F\xBF\xEE\x80\x80", true, "\xED\x9F\xBF\xEE\x80\x80"},  // Around the surrogates.
        {"a\xED\xA0\x80"
         "b",
         false, "ab"},
        {"a\xED\xBF"
         "bc",
         false, "ac"},
        {"a\xED\xA0", false, "a"},
        {"a\xED\xE9"
         "bc",
         false, "ac"},
        {"a\xED\xC3\xA9", false, "a"},  // C3 has not both bits, so it breaks the sequence, and A9 stands alone.
        {"a\xED", false, "a"},
        {"a\x80"
         "b",
         false, "ab"},
        {"a\xF8\x88\xFF"
         "b",
         false, "ab"},
        {"a\xC3"
         "Ab",
         false, "ab"},
        {"a\xE2\x82"
         "Ab",
         false, "ab"},
        {"a\xF0\x9F\x98"
         "Ab",
         false, "ab"},
        {"a\xC3\xC3\xA9"
         "b",
         false, "ab"},  // The swallowed lead byte leaves its continuation alone.
        {"\xE2\x82\x41", false, ""},
        {"a\xE2\x82", false, "a"},
        {"a\xC3", false, "a"},
        {"a\xF0\x9F\x98", false, "a"},
    };
    for (const auto& row : rows) {
        const Bytes bytes(row.s.begin(), row.s.end());
        SCOPED_TRACE(StringUtils::byteVectorToHexString(bytes));
        EXPECT_EQ(StringUtils::isValidUtf8String(row.s), row.valid);
        EXPECT_EQ(StringUtils::removeNonUtf8Characters(row.s), row.cleaned);
    }
}

TEST(Utf8, RemovalKeepsWhatIsValidAndLeavesNothingElse) {
    Generated generated;
    const std::string alphabet = "a~\x7F\x80\x9F\xA0\xBF\xC0\xC3\xDF\xE0\xE2\xED\xEF\xF0\xF4\xF7\xF8\xFF";
    for (int i = 0; i < 5000; ++i) {
        const std::string s = generated.text(alphabet, 12);
        const std::string cleaned = StringUtils::removeNonUtf8Characters(s);
        EXPECT_TRUE(StringUtils::isValidUtf8String(cleaned));
        EXPECT_EQ(cleaned == s, StringUtils::isValidUtf8String(s));
    }
}
