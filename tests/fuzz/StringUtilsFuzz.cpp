// Feeds arbitrary text to the parsing, UTF-8, hexadecimal and splitting operations and aborts where a result
// contradicts another.

#include <vector>

#include "FuzzInput.h"
#include "smarthome/StringUtils.h"

using smarthome::StringUtils;

namespace {

void parse(const std::string& s, int base) {
    long long wide = 0;
    const bool isWide = StringUtils::stringToInt64(s.c_str(), &wide, base);
    unsigned short narrow = 0;
    const bool isNarrow = StringUtils::stringToUInt16(s.c_str(), &narrow, base);
    require(isNarrow == (isWide && wide >= 0 && wide <= 65535), "16 bits are read where 64 are and fit");
    require(!isNarrow || narrow == wide, "16 and 64 bits agree");

    unsigned long long wideUnsigned = 0;
    unsigned char byte = 0;
    const bool isUnsigned = StringUtils::stringToUInt64(s.c_str(), &wideUnsigned, base);
    require(StringUtils::stringToUInt8(s.c_str(), &byte, base) == (isUnsigned && wideUnsigned <= 255),
            "8 bits are read where 64 are and fit");

    int decimal = 0;
    unsigned int decimalUnsigned = 0;
    double real = 0;
    const bool isDecimal = StringUtils::stringToInt(s.c_str(), &decimal);
    require(!isDecimal || StringUtils::toInt(s) == std::make_pair(true, decimal), "lenient takes what strict takes");
    require(!isDecimal || StringUtils::toInt64(s).second == decimal, "int and int64 agree");
    require(!isDecimal || StringUtils::stringToDouble(s.c_str(), &real), "an int is a double");
    StringUtils::stringToUInt32(s.c_str(), &decimalUnsigned);
    StringUtils::stringToDouble(s.c_str(), &real);
    StringUtils::hexStringToUint64(s);
}

void convert(const std::string& s) {
    const std::vector<unsigned char> bytes(s.begin(), s.end());
    require(StringUtils::hexStringToByteVector(StringUtils::byteVectorToHexString(bytes)) == bytes, "hex and back");
    require(StringUtils::hexStringToByteVector(s).size() == (s.size() % 2 == 0 ? s.size() / 2 : 0), "byte count");

    const std::string cleaned = StringUtils::removeNonUtf8Characters(s);
    require(StringUtils::isValidUtf8String(cleaned), "what was cleaned is valid");
    require((cleaned == s) == StringUtils::isValidUtf8String(s), "what is valid is kept, the rest is not");
}

void split(const std::string& s, const std::string& delimiter, int limit) {
    std::string joined;
    for (const std::string& field : StringUtils::split(s, delimiter)) joined += field + delimiter;
    require(s.empty() || delimiter.empty() || joined == s + delimiter, "fields join to the text");

    const char c = delimiter.empty() ? ',' : delimiter[0];
    const std::size_t fields = StringUtils::split(s, c).size();
    const std::size_t limited = StringUtils::split(s, c, limit).size();
    require(limited <= fields && (limit < 1 || limited <= static_cast<std::size_t>(limit)), "no more than the limit");

    // The brace-aware split ends on lists of braced elements only, so make one of the fields.
    if (delimiter.find_first_of("{}") != std::string::npos) return;
    std::vector<std::string> elements = StringUtils::split(s, c);
    std::string list;
    for (std::string& element : elements) {
        element = "{" + StringUtils::stripCharacter(element, '}') + "}";
        list += (list.empty() ? "" : delimiter) + element;
    }
    if (delimiter.empty() && !list.empty()) elements.emplace_back();
    require(StringUtils::splitStrIgnoringSubStrInBrackets(list, delimiter) == elements, "braced elements come back");
}

void shape(std::string s, const std::string& other) {
    require(StringUtils::startsWith(s + other, s) && StringUtils::hasSuffix(s + other, other), "a sum has its parts");
    require(StringUtils::replaceAll(s, other, other) == s, "replacing by itself changes nothing");
    require(other.empty() || StringUtils::stripCharacter(s, other[0]).find(other[0]) == std::string::npos, "stripped");
    require(StringUtils::trim(StringUtils::trim(s)) == StringUtils::trim(s), "trimmed once is trimmed");
    require(StringUtils::getSubStrInOutermostBracket("{" + s + "}") == s, "outermost braces");
    const bool sane = StringUtils::sanitizeEndpointId(s);
    require(sane == (!s.empty() && s.size() <= 256), "endpoint ids have 1 to 256 characters");
}

}  // namespace

// The first byte chooses the base and limit, the second how much of the text is the delimiter.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    const int number = data[0] % 40 - 1;
    const std::string text(reinterpret_cast<const char*>(data) + 2, size - 2);
    const std::string delimiter = text.substr(0, data[1] % 4);
    parse(text.c_str(), number);  // Up to its first zero byte, as the strict ones read it.
    convert(text);
    split(text.substr(delimiter.size()), delimiter, number);
    shape(text.substr(delimiter.size()), delimiter);
    return 0;
}
