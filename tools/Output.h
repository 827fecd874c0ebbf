#pragma once

#include <chrono>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

/// What users and scripts see. Payloads and names are bytes of unknown origin: outside of raw answers they never
/// reach a terminal or a line of output unescaped.
namespace nipcctl {

/// Members keep the order in which they were set, since people read them too.
using Json = nlohmann::ordered_json;

/// To standard output, at once. Fails with Exit::InputOutput, silently when the reader has gone.
void writeOut(std::string_view bytes);
void writeLine(std::string_view text);
void writeJson(const Json& value);

/// One sentence to standard error.
void complain(std::string_view sentence);

bool isTerminal(int descriptor);

enum class Colour { Red = 31, Green = 32 };
/// Coloured where standard output is a terminal and NO_COLOR is not set.
std::string coloured(Colour colour, const std::string& text);

/// UTF-8 as it is; control characters, backslashes and other bytes as \n, \t, \r, \\ or \xNN.
std::string escaped(std::string_view bytes);
std::string inQuotes(std::string_view bytes);
std::string hexOf(std::string_view bytes);

/// Sets "data" to the bytes where they are UTF-8, else "hex" to their hexadecimal form; and "length".
void putBytes(Json& object, std::string_view bytes);
/// A text for a member of a JSON object; what is not UTF-8 is escaped.
std::string jsonText(std::string_view bytes);

/// Local time, as 2026-01-31T12:00:00+0100.
std::string timeStamp(std::chrono::system_clock::time_point time, bool withMilliseconds);

/// Columns of equal width. Those that `right` names, one letter each ('r' or 'l'), are right-aligned.
std::string table(const std::vector<std::vector<std::string>>& rows, std::string_view alignment);

}  // namespace nipcctl
