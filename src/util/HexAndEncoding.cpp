#include <cstdlib>
#include <iomanip>
#include <locale>
#include <sstream>

#include "smarthome/StringUtils.h"

namespace smarthome {
namespace {

unsigned char byteFromHex(const std::string& hex, std::size_t at) {
    const char pair[] = {hex[at], hex[at + 1], '\0'};
    return static_cast<unsigned char>(std::strtol(pair, nullptr, 16));
}

// Not the global locale, which might group digits.
std::ostringstream hexStream() {
    std::ostringstream stream;
    stream.imbue(std::locale::classic());
    stream << std::hex << std::setfill('0');
    return stream;
}

bool isContinuation(unsigned char byte) { return (byte & 0xC0U) == 0x80U; }

// An encoded half of a UTF-16 pair, by the two bytes it begins with.
bool isSurrogate(const std::string& s, std::size_t at) {
    return static_cast<unsigned char>(s[at]) == 0xEDU && at + 1 < s.size() &&
           (static_cast<unsigned char>(s[at + 1]) & 0xA0U) == 0xA0U;
}

// How many continuation bytes `byte` asks for; -1 if it cannot begin a character.
int continuationsAfter(unsigned char byte) {
    if (byte < 0x80U) return 0;
    if ((byte & 0xE0U) == 0xC0U) return 1;
    if ((byte & 0xF0U) == 0xE0U) return 2;
    if ((byte & 0xF8U) == 0xF0U) return 3;
    return -1;
}

struct Sequence {
    std::size_t size;  // In bytes, the one that broke it included.
    bool complete;
};

// Reads the character at `at`, which `continuations` bytes are to follow.
Sequence readSequence(const std::string& s, std::size_t at, int continuations) {
    std::size_t size = 1;
    for (int i = 0; i < continuations; ++i, ++size) {
        if (at + size == s.size()) return {size, false};
        if (!isContinuation(static_cast<unsigned char>(s[at + size]))) return {size + 1, false};
    }
    return {size, true};
}

}  // namespace

void StringUtils::hexStringToByteArray(const std::string& hex, unsigned char* out) {
    if (hex.size() % 2 != 0) return;
    for (std::size_t i = 0; i < hex.size(); i += 2) out[i / 2] = byteFromHex(hex, i);
}

std::vector<unsigned char> StringUtils::hexStringToByteVector(const std::string& hex) {
    if (hex.size() % 2 != 0) return {};
    std::vector<unsigned char> bytes(hex.size() / 2);
    hexStringToByteArray(hex, bytes.data());
    return bytes;
}

std::string StringUtils::byteVectorToHexString(std::vector<unsigned char> bytes) {
    std::ostringstream stream = hexStream();
    for (const unsigned char byte : bytes) stream << std::setw(2) << static_cast<unsigned int>(byte);
    return stream.str();
}

std::string StringUtils::byteVectorToString(std::vector<unsigned char> bytes) {
    return std::string(bytes.begin(), bytes.end());
}

std::string StringUtils::uint64ToHexString(unsigned long long value) { return uint64ToHexString(value, 0); }

std::string StringUtils::uint64ToHexString(unsigned long long value, unsigned char width) {
    std::ostringstream stream = hexStream();
    stream << std::setw(width) << value;
    return stream.str();
}

std::string StringUtils::uint64ToHex2sComplementString(unsigned long long value) {
    return uint64ToHexString(~value + 1);
}

bool StringUtils::isValidUtf8String(const std::string& s) {
    for (std::size_t i = 0; i < s.size();) {
        const int continuations = continuationsAfter(static_cast<unsigned char>(s[i]));
        if (continuations < 0 || isSurrogate(s, i)) return false;
        const Sequence sequence = readSequence(s, i, continuations);
        if (!sequence.complete) return false;
        i += sequence.size;
    }
    return true;
}

std::string StringUtils::removeNonUtf8Characters(const std::string& s) {
    constexpr std::size_t surrogateSize = 3;
    std::string result;
    for (std::size_t i = 0; i < s.size();) {
        const int continuations = continuationsAfter(static_cast<unsigned char>(s[i]));
        if (isSurrogate(s, i)) {
            i += surrogateSize;
        } else if (continuations < 0) {
            ++i;
        } else {
            const Sequence sequence = readSequence(s, i, continuations);
            if (sequence.complete) result.append(s, i, sequence.size);
            i += sequence.size;
        }
    }
    return result;
}

}  // namespace smarthome
