#pragma once

#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "smarthome/Export.h"

namespace smarthome {

/// Conversions and manipulations of text: numbers from text, trimming, splitting and joining, hexadecimal, UTF-8.
///
/// All operations are static, keep no state and may be called from any thread. None logs, and none throws, but
/// that a failed allocation shows as std::bad_alloc. Unless said otherwise text is taken byte by byte, zero
/// bytes included, in classes ("white space", "letter") that are those of the C library in the process's
/// current locale. Each example is one expression that holds, declarations before it.
class SMARTHOME_EXPORT StringUtils {
public:
    // ---- Numbers from text: the strict family. --------------------------------------------------------------
    //
    // Takes a NUL-terminated text, returns whether it is a number of the range, and writes `*out` only then. A
    // null `str` or `out` is a failure. White space may stand before and after the number, a sign before its
    // digits; anything else after it is a failure. `base` is 2 to 36, or 0 to go by the prefix ("0x" hexadecimal,
    // "0" octal); any other is a failure.

    /// Reads the whole range of long long.
    /// Example: long long n = 0; stringToInt64("0x1F ", &n, 0) && n == 31
    static bool stringToInt64(const char* str, long long* out, int base);

    /// Reads the whole range of unsigned long long. A leading "-" is accepted and negates modulo 2^64.
    /// Example: unsigned long long n = 0; stringToUInt64("-1", &n, 10) && n == 18446744073709551615ULL
    static bool stringToUInt64(const char* str, unsigned long long* out, int base);

    /// Reads a decimal number from -2147483648 to 2147483647.
    /// Example: int n = 7; !stringToInt("2147483648", &n) && n == 7
    static bool stringToInt(const char* str, int* out);

    /// stringToInt() under its other name.
    /// Example: int n = 0; stringToInt32("-2147483648", &n) && n + 1 == -2147483647
    static bool stringToInt32(const char* str, int* out);

    /// Reads a decimal number from 0 to 4294967295. Negative ones fail.
    /// Example: unsigned int n = 0; stringToUInt32("4294967295", &n) && n == 4294967295U
    static bool stringToUInt32(const char* str, unsigned int* out);

    /// Reads a number from 0 to 65535. Negative ones fail.
    /// Example: unsigned short n = 7; !stringToUInt16("-1", &n, 10) && n == 7
    static bool stringToUInt16(const char* str, unsigned short* out, int base);

    /// Reads a number from 0 to 255. A leading "-" negates modulo 2^64 before the range is checked, so that "-0"
    /// passes, "-1" fails, and so do all negative ones but those within 255 of -2^64.
    /// Example: unsigned char n = 0; stringToUInt8("ff", &n, 16) && n == 255
    static bool stringToUInt8(const char* str, unsigned char* out, int base);

    /// Reads decimal or hexadecimal floating text, "inf" included, with the decimal point of the locale. Fails on
    /// overflow, on underflow and on "nan". Unlike its siblings it does not look at what follows the number.
    /// Example: double d = 0; stringToDouble("1.5abc", &d) && d == 1.5
    static bool stringToDouble(const char* str, double* out);

    // ---- Numbers from text: the lenient family. -------------------------------------------------------------
    //
    // Returns whether there was a number of the range, and the number, or a value that stands for failure.

    /// Reads an int, in hexadecimal if `s` contains "0x" anywhere, else in decimal, with leading white space and a
    /// sign accepted. What follows the number is not looked at. Failure gives (false, -1).
    /// Example: toInt("12abc") == std::make_pair(true, 12) && toInt("10x").second == 16
    static std::pair<bool, int> toInt(std::string s);

    /// Reads a decimal number as strictly as stringToInt64(), up to the first zero byte. Failure gives (false, 0).
    /// Example: toInt64("12 ") == std::make_pair(true, 12LL) && !toInt64("12x").first
    static std::pair<bool, long long> toInt64(std::string s);

    /// Reads hexadecimal digits, with or without "0x" before them. Only with "0x" somewhere in `s` may white space
    /// or a sign come first. What follows the number is not looked at. Failure gives false and all bits set.
    /// Example: hexStringToUint64("ff") == std::make_pair(true, 255ULL) && hexStringToUint64("zz").second == ~0ULL
    static std::pair<bool, unsigned long long> hexStringToUint64(std::string s);

    // ---- Manipulation. --------------------------------------------------------------------------------------

    /// Returns `s` without the white space at both ends.
    /// Example: trim(" \t a b \n") == "a b"
    static std::string trim(std::string s);

    /// Returns `s` without any white space.
    /// Example: removeWhiteSpaces(" a\tb c\n") == "abc"
    static std::string removeWhiteSpaces(std::string s);

    /// Returns `s` without any `c`.
    /// Example: stripCharacter("a-b-c", '-') == "abc"
    static std::string stripCharacter(std::string s, char c);

    /// Takes out of `s` what is neither white space, letter, digit nor punctuation: control characters, and bytes
    /// from 0x80 up. Returns `s`.
    /// Example: std::string s = "a\x01 b\xC3\xA9!"; removeSpecialCharacters(s) == "a b!"
    static std::string& removeSpecialCharacters(std::string& s);

    /// Takes out of `s` all but letters, the digits 0 to 9, white space and the nine characters `_#&-:;=?@`.
    /// Returns whether 1 to 256 characters are left; `s` is changed either way.
    /// Example: std::string s = "dev.01/Kitchen Light"; sanitizeEndpointId(s) && s == "dev01Kitchen Light"
    static bool sanitizeEndpointId(std::string& s);

    /// Returns `first` followed by `second`, the first character of which is made upper case.
    /// Example: camelMerge("get", "value") == "getValue"
    static std::string camelMerge(const std::string& first, std::string second);

    /// Whether `s` begins with `prefix`; every text begins with an empty one.
    /// Example: startsWith("abc", "ab") && !startsWith("ab", "abc")
    static bool startsWith(const std::string& s, const std::string& prefix);

    /// Whether `s` ends with `suffix`; every text ends with an empty one.
    /// Example: hasSuffix("abc", "bc") && hasSuffix("abc", "")
    static bool hasSuffix(const std::string& s, const std::string& suffix);

    /// Returns `s` with every byte in lower case.
    /// Example: toLowerCase("Kitchen-2") == "kitchen-2"
    static std::string toLowerCase(const std::string& s);

    /// Returns `s` with every byte in upper case.
    /// Example: toUpperCase("Kitchen-2") == "KITCHEN-2"
    static std::string toUpperCase(const std::string& s);

    /// Returns `s` with `to` for each `from`, left to right. What was put in is not searched again. With an empty
    /// `from` nothing is replaced.
    /// Example: replaceAll("aaa", "a", "aa") == "aaaaaa"
    static std::string replaceAll(const std::string& s, const std::string& from, const std::string& to);

    /// Returns the parts joined, with `separator` between them unless that is null. No part may be null.
    /// Example: concatenate({"a", "b", "c"}, ", ") == "a, b, c" && concatenate({"a", "b"}, nullptr) == "ab"
    static std::string concatenate(std::initializer_list<const char*> parts, const char* separator);

    /// Splits at every `delimiter`. Empty fields are kept, but for the one after a delimiter that ends `s`. An
    /// empty `s` has no fields.
    /// Example: split("a,,b,", ',') == std::vector<std::string>{"a", "", "b"}
    static std::vector<std::string> split(std::string s, char delimiter);

    /// Splits as above into at most `limit` fields, the last of which keeps its delimiters but ends at the first
    /// newline: what follows that newline is dropped. A `limit` of 1 or less gives `s` whole; an empty `s` has no
    /// fields whatever the limit.
    /// Example: split("a,b,c\nd", ',', 2) == std::vector<std::string>{"a", "b,c"}
    static std::vector<std::string> split(std::string s, char delimiter, int limit);

    /// Splits at every `delimiter`. All empty fields are kept, also the one after a delimiter that ends `s`. An
    /// empty `s` has no fields; an empty `delimiter` gives `s` whole.
    /// Example: split("a--b--", "--") == std::vector<std::string>{"a", "b", ""}
    static std::vector<std::string> split(const std::string& s, const std::string& delimiter);

    /// Returns the text between the first "{" and the last "}" of an `s` that begins with "{". With p characters
    /// before the "{" the result is p characters longer, the "}" first, if `s` has so many. Empty when either brace
    /// is missing; nothing to rely on when they stand the other way round.
    /// Example: getSubStrInOutermostBracket("{x{y}z}") == "x{y}z"
    static std::string getSubStrInOutermostBracket(const std::string& s);

    /// Splits a list whose elements are each wrapped in one pair of braces, such as "{a,b},{c}", at the delimiters
    /// between the elements. The elements keep their braces; an empty list has no elements.
    ///
    /// Warning: only for such lists. It checks nothing, and with others it does not fail but gives odd fields
    /// ("a" gives two empty ones), or NEVER RETURNS and takes memory until that runs out: so with text after the
    /// last braced element ("{a},b"), with a brace that is not closed ("{a") and without braces ("a,b"). Never pass
    /// text of unknown origin.
    /// Example: splitStrIgnoringSubStrInBrackets("{a,b},{c}", ",").front() == "{a,b}"
    static std::vector<std::string> splitStrIgnoringSubStrInBrackets(const std::string& s,
                                                                     const std::string& delimiter);

    // ---- Hexadecimal and bytes. -----------------------------------------------------------------------------
    //
    // Hexadecimal is written in lower case, without "0x" and without separators. It is read in pairs of
    // characters, each on its own as strtol reads it: what is no digit ends the pair and is not reported ("1g" is
    // 0x01, "zz" is 0x00), and a space or sign counts as it does there (" f" is 0x0f, "-1" is 0xff).

    /// Writes one byte per pair of characters to `out`, which holds hex.size() / 2 bytes. `hex` must have an even
    /// length; with an odd one nothing is written.
    /// Example: unsigned char b[2] = {}; hexStringToByteArray("0aff", b); b[0] == 0x0a && b[1] == 0xff
    static void hexStringToByteArray(const std::string& hex, unsigned char* out);

    /// Returns one byte per pair of characters; none when the length is odd.
    /// Example: hexStringToByteVector("0aff") == std::vector<unsigned char>{0x0a, 0xff}
    static std::vector<unsigned char> hexStringToByteVector(const std::string& hex);

    /// Returns two digits per byte.
    /// Example: byteVectorToHexString({0x00, 0x0a, 0xff}) == "000aff"
    static std::string byteVectorToHexString(std::vector<unsigned char> bytes);

    /// Returns the bytes as characters, unchanged.
    /// Example: byteVectorToString({0x61, 0x00, 0xff}) == std::string("a\0\xff", 3)
    static std::string byteVectorToString(std::vector<unsigned char> bytes);

    /// Returns the digits of `value` without leading zeros; "0" for zero.
    /// Example: uint64ToHexString(255) == "ff"
    static std::string uint64ToHexString(unsigned long long value);

    /// As above with zeros before, up to `width` digits. A number that has more is not cut.
    /// Example: uint64ToHexString(255, 4) == "00ff" && uint64ToHexString(74565, 2) == "12345"
    static std::string uint64ToHexString(unsigned long long value, unsigned char width);

    /// Returns the digits, without leading zeros, of `value` negated modulo 2^64.
    /// Example: uint64ToHex2sComplementString(2) == "fffffffffffffffe"
    static std::string uint64ToHex2sComplementString(unsigned long long value);

    // ---- UTF-8. ---------------------------------------------------------------------------------------------

    /// Whether `s` consists of lead bytes each with its continuation bytes, and of ASCII. Surrogates (ED A0 to
    /// ED BF) are refused; overlong forms and numbers above U+10FFFF are accepted.
    /// Example: isValidUtf8String("\xC3\xA9") && !isValidUtf8String("\xED\xA0\x80")
    static bool isValidUtf8String(const std::string& s);

    /// Returns `s` without what isValidUtf8String() refuses. A sequence that breaks off takes the byte that broke
    /// it along, even an ASCII one.
    /// Example: removeNonUtf8Characters("a\xC3" "AB\x80") == "aB"
    static std::string removeNonUtf8Characters(const std::string& s);
};

}  // namespace smarthome
