#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <sstream>

#include "smarthome/StringUtils.h"

namespace smarthome {
namespace {

template <typename Wide>
bool parseStrictly(const char* str, Wide* out, int base, Wide (*convert)(const char*, char**, int)) {
    if (str == nullptr || out == nullptr) return false;
    // With an unknown base the C library reads nothing, and not each of them then says where it stopped.
    if (base < 0 || base == 1 || base > 36) return false;
    char* end = nullptr;
    errno = 0;
    const Wide value = convert(str, &end, base);
    if (end == str || errno == ERANGE) return false;
    while (std::isspace(static_cast<unsigned char>(*end)) != 0) ++end;
    if (*end != '\0') return false;
    *out = value;
    return true;
}

template <typename Wide, typename Narrow>
bool storeInRange(Wide value, Narrow* out) {
    const Narrow narrow = static_cast<Narrow>(value);
    if (static_cast<Wide>(narrow) != value) return false;
    *out = narrow;
    return true;
}

bool mentionsHexPrefix(const std::string& s) { return s.find("0x") != std::string::npos; }

// Some standard libraries take the "x" of "10x" for one of a prefix and then refuse the number. An "x" that is
// not in the prefix ends the number, and nothing that follows the number counts, so it can as well be cut off.
std::string cutAtStrayX(std::string s) {
    const std::size_t x = s.find_first_of("xX");
    if (x == std::string::npos) return s;
    const bool afterZero = x > 0 && s[x - 1] == '0';
    const bool withinDigits = x > 1 && std::isxdigit(static_cast<unsigned char>(s[x - 2])) != 0;
    if (!afterZero || withinDigits) s.erase(x);
    return s;
}

template <typename Number>
std::pair<bool, Number> extract(const std::string& s, bool hexadecimal, Number onFailure) {
    std::stringstream stream(hexadecimal ? cutAtStrayX(s) : s);
    if (hexadecimal) stream.setf(std::ios_base::hex, std::ios_base::basefield);
    Number value = 0;
    stream >> value;
    if (stream.fail()) return {false, onFailure};
    return {true, value};
}

}  // namespace

bool StringUtils::stringToInt64(const char* str, long long* out, int base) {
    return parseStrictly(str, out, base, &std::strtoll);
}

bool StringUtils::stringToUInt64(const char* str, unsigned long long* out, int base) {
    return parseStrictly(str, out, base, &std::strtoull);
}

bool StringUtils::stringToInt(const char* str, int* out) {
    long long value = 0;
    return out != nullptr && stringToInt64(str, &value, 10) && storeInRange(value, out);
}

bool StringUtils::stringToInt32(const char* str, int* out) { return stringToInt(str, out); }

bool StringUtils::stringToUInt32(const char* str, unsigned int* out) {
    long long value = 0;
    return out != nullptr && stringToInt64(str, &value, 10) && storeInRange(value, out);
}

bool StringUtils::stringToUInt16(const char* str, unsigned short* out, int base) {
    long long value = 0;
    return out != nullptr && stringToInt64(str, &value, base) && storeInRange(value, out);
}

bool StringUtils::stringToUInt8(const char* str, unsigned char* out, int base) {
    unsigned long long value = 0;
    return out != nullptr && stringToUInt64(str, &value, base) && storeInRange(value, out);
}

bool StringUtils::stringToDouble(const char* str, double* out) {
    if (str == nullptr || out == nullptr) return false;
    char* end = nullptr;
    errno = 0;
    const double value = std::strtod(str, &end);
    if (end == str || errno == ERANGE || std::isnan(value)) return false;
    *out = value;
    return true;
}

std::pair<bool, int> StringUtils::toInt(std::string s) { return extract<int>(s, mentionsHexPrefix(s), -1); }

std::pair<bool, long long> StringUtils::toInt64(std::string s) {
    long long value = 0;
    const bool parsed = stringToInt64(s.c_str(), &value, 10);
    return {parsed, value};
}

std::pair<bool, unsigned long long> StringUtils::hexStringToUint64(std::string s) {
    if (!mentionsHexPrefix(s)) s.insert(0, "0x");
    return extract<unsigned long long>(s, true, std::numeric_limits<unsigned long long>::max());
}

}  // namespace smarthome
