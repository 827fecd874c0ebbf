#include "Output.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <system_error>

#include "Exit.h"

namespace nipcctl {
namespace {

constexpr const char* hexDigits = "0123456789abcdef";

/// The length of the UTF-8 character that begins here, 0 for what is none, or would act on a terminal.
std::size_t printableLength(std::string_view bytes) {
    const auto at = [bytes](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
    const unsigned char lead = at(0);
    if (lead < 0x80) return lead >= 0x20 && lead != 0x7f ? 1 : 0;
    const std::size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    if (lead < 0xc2 || lead > 0xf4 || bytes.size() < length) return 0;
    for (std::size_t i = 1; i < length; ++i)
        if ((at(i) & 0xc0) != 0x80) return 0;
    const bool control = lead == 0xc2 && at(1) < 0xa0;
    const bool overlong = (lead == 0xe0 && at(1) < 0xa0) || (lead == 0xf0 && at(1) < 0x90);
    const bool outside = (lead == 0xed && at(1) > 0x9f) || (lead == 0xf4 && at(1) > 0x8f);
    return control || overlong || outside ? 0 : length;
}

bool isUtf8(std::string_view bytes) {
    while (!bytes.empty()) {
        const bool ascii = static_cast<unsigned char>(bytes.front()) < 0x80;
        const bool control = bytes.size() > 1 && bytes[0] == '\xc2' && (bytes[1] & 0xe0) == 0x80;
        const std::size_t length = ascii ? 1 : control ? 2 : printableLength(bytes);
        if (length == 0) return false;
        bytes.remove_prefix(length);
    }
    return true;
}

}  // namespace

void writeOut(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = ::write(STDOUT_FILENO, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0 && errno == EPIPE) throw Failure(Exit::InputOutput, "");
        if (written < 0)
            throw Failure(Exit::InputOutput,
                          "standard output cannot be written: " + std::generic_category().message(errno));
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
}

void writeLine(std::string_view text) { writeOut(std::string(text) + "\n"); }

void writeJson(const Json& value) { writeLine(value.dump()); }

void complain(std::string_view sentence) {
    const std::string line = "nipcctl: " + std::string(sentence) + "\n";
    std::fwrite(line.data(), 1, line.size(), stderr);
}

bool isTerminal(int descriptor) { return ::isatty(descriptor) == 1; }

std::string coloured(Colour colour, const std::string& text) {
    const char* const unwanted = std::getenv("NO_COLOR");
    if (!isTerminal(STDOUT_FILENO) || (unwanted != nullptr && *unwanted != '\0')) return text;
    return "\033[" + std::to_string(static_cast<int>(colour)) + "m" + text + "\033[0m";
}

std::string escaped(std::string_view bytes) {
    std::string text;
    while (!bytes.empty()) {
        const char c = bytes.front();
        const std::size_t length = c == '\\' ? 0 : printableLength(bytes);
        text += bytes.substr(0, length);
        if (length == 0) {
            constexpr std::string_view special = "\\\n\r\t";
            constexpr std::string_view letters = "\\nrt";
            text += '\\';
            if (const std::size_t known = special.find(c); known != std::string_view::npos) {
                text += letters[known];
            } else {
                text += "x" + hexOf(bytes.substr(0, 1));
            }
        }
        bytes.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return text;
}

std::string inQuotes(std::string_view bytes) { return "\"" + escaped(bytes) + "\""; }

std::string hexOf(std::string_view bytes) {
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        text += hexDigits[byte >> 4U];
        text += hexDigits[byte & 15U];
    }
    return text;
}

void putBytes(Json& object, std::string_view bytes) {
    object["length"] = bytes.size();
    if (isUtf8(bytes)) {
        object["data"] = bytes;
    } else {
        object["hex"] = hexOf(bytes);
    }
}

std::string jsonText(std::string_view bytes) { return isUtf8(bytes) ? std::string(bytes) : escaped(bytes); }

std::string timeStamp(std::chrono::system_clock::time_point time, bool withMilliseconds) {
    using namespace std::chrono;
    const std::time_t seconds = system_clock::to_time_t(time);
    std::tm local{};
    ::localtime_r(&seconds, &local);
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &local);
    std::string stamp = text.data();
    if (withMilliseconds) {
        const auto milliseconds = duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count() % 1000;
        std::snprintf(text.data(), text.size(), ".%03d", static_cast<int>(milliseconds));
        stamp += text.data();
    }
    std::strftime(text.data(), text.size(), "%z", &local);
    return stamp + text.data();
}

std::string table(const std::vector<std::vector<std::string>>& rows, std::string_view alignment) {
    std::vector<std::size_t> widths(alignment.size());
    for (const auto& row : rows)
        for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
    std::string text;
    for (const auto& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            const std::string padding(widths[i] - row[i].size(), ' ');
            line += (i > 0 ? "  " : "") + (alignment[i] == 'r' ? padding + row[i] : row[i] + padding);
        }
        text += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
    }
    return text;
}

}  // namespace nipcctl
