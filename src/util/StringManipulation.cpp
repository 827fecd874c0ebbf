#include <algorithm>
#include <cctype>
#include <cstring>
#include <sstream>

#include "smarthome/StringUtils.h"

namespace smarthome {
namespace {

// The C library's character classes are defined for unsigned values only.
bool isSpace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }
bool isLetter(char c) { return std::isalpha(static_cast<unsigned char>(c)) != 0; }
bool isLetterOrDigit(char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; }
bool isPunctuation(char c) { return std::ispunct(static_cast<unsigned char>(c)) != 0; }
char lower(char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); }
char upper(char c) { return static_cast<char>(std::toupper(static_cast<unsigned char>(c))); }

bool belongsInEndpointId(char c) {
    const bool listed = c != '\0' && std::strchr("0123456789_#&-:;=?@", c) != nullptr;
    return listed || isLetter(c) || isSpace(c);
}

template <typename Unwanted>
void eraseIf(std::string& s, Unwanted unwanted) {
    s.erase(std::remove_if(s.begin(), s.end(), unwanted), s.end());
}

}  // namespace

std::string StringUtils::trim(std::string s) {
    s.erase(std::find_if_not(s.rbegin(), s.rend(), isSpace).base(), s.end());
    s.erase(s.begin(), std::find_if_not(s.begin(), s.end(), isSpace));
    return s;
}

std::string StringUtils::removeWhiteSpaces(std::string s) {
    eraseIf(s, isSpace);
    return s;
}

std::string StringUtils::stripCharacter(std::string s, char c) {
    eraseIf(s, [c](char other) { return other == c; });
    return s;
}

std::string& StringUtils::removeSpecialCharacters(std::string& s) {
    eraseIf(s, [](char c) { return !isSpace(c) && !isLetterOrDigit(c) && !isPunctuation(c); });
    return s;
}

bool StringUtils::sanitizeEndpointId(std::string& s) {
    constexpr std::size_t longestId = 256;
    eraseIf(s, [](char c) { return !belongsInEndpointId(c); });
    return !s.empty() && s.size() <= longestId;
}

std::string StringUtils::camelMerge(const std::string& first, std::string second) {
    if (!second.empty()) second[0] = upper(second[0]);
    return first + second;
}

bool StringUtils::startsWith(const std::string& s, const std::string& prefix) {
    return s.compare(0, prefix.size(), prefix) == 0;
}

bool StringUtils::hasSuffix(const std::string& s, const std::string& suffix) {
    return suffix.size() <= s.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::string StringUtils::toLowerCase(const std::string& s) {
    std::string result = s;
    std::transform(result.begin(), result.end(), result.begin(), lower);
    return result;
}

std::string StringUtils::toUpperCase(const std::string& s) {
    std::string result = s;
    std::transform(result.begin(), result.end(), result.begin(), upper);
    return result;
}

std::string StringUtils::replaceAll(const std::string& s, const std::string& from, const std::string& to) {
    std::string result = s;
    if (from.empty()) return result;
    std::size_t at = result.find(from);
    while (at != std::string::npos) {
        result.replace(at, from.size(), to);
        at = result.find(from, at + to.size());
    }
    return result;
}

std::string StringUtils::concatenate(std::initializer_list<const char*> parts, const char* separator) {
    std::string result;
    for (const char* part : parts) {
        result += part;
        if (separator != nullptr) result += separator;
    }
    if (separator != nullptr && !result.empty()) result.resize(result.size() - std::strlen(separator));
    return result;
}

std::vector<std::string> StringUtils::split(std::string s, char delimiter) {
    std::vector<std::string> fields;
    std::istringstream stream(s);
    std::string field;
    while (std::getline(stream, field, delimiter)) fields.push_back(field);
    return fields;
}

std::vector<std::string> StringUtils::split(std::string s, char delimiter, int limit) {
    if (s.empty()) return {};
    if (limit <= 1) return {s};
    std::vector<std::string> fields;
    std::istringstream stream(s);
    std::string field;
    const std::size_t beforeLast = static_cast<std::size_t>(limit) - 1;
    while (fields.size() < beforeLast && std::getline(stream, field, delimiter)) fields.push_back(field);
    if (std::getline(stream, field)) fields.push_back(field);
    return fields;
}

std::vector<std::string> StringUtils::split(const std::string& s, const std::string& delimiter) {
    if (s.empty()) return {};
    if (delimiter.empty()) return {s};
    std::vector<std::string> fields;
    std::size_t start = 0;
    for (std::size_t at = s.find(delimiter); at != std::string::npos; at = s.find(delimiter, start)) {
        fields.push_back(s.substr(start, at - start));
        start = at + delimiter.size();
    }
    fields.push_back(s.substr(start));
    return fields;
}

std::string StringUtils::getSubStrInOutermostBracket(const std::string& s) {
    const std::size_t open = s.find('{');
    const std::size_t close = s.rfind('}');
    if (open == std::string::npos || close == std::string::npos) return {};
    // Callers rely on this length also where the brace does not come first, and on its wrap when close is 0.
    return s.substr(open + 1, close - 1);
}

std::vector<std::string> StringUtils::splitStrIgnoringSubStrInBrackets(const std::string& s,
                                                                       const std::string& delimiter) {
    if (s.empty()) return {};
    // Where the field from `start` on ends: past its braces if it has any before the next delimiter. With neither
    // brace nor delimiter the sum wraps to 0; that, too, is what callers know.
    const auto cutAfter = [&](std::size_t start) {
        const std::size_t open = s.find('{', start);
        const std::size_t cut = s.find(delimiter, start);
        return cut >= open ? s.find('}', start) + 1 : cut;
    };

    std::vector<std::string> fields;
    std::size_t start = 0;
    std::size_t cut = cutAfter(start);
    while (cut != std::string::npos && start < s.size()) {
        fields.push_back(s.substr(start, cut - start));
        start = cut + delimiter.size();
        if (start >= s.size()) break;
        cut = cutAfter(start);
    }
    if (start <= s.size()) fields.push_back(s.substr(start));
    return fields;
}

}  // namespace smarthome
