#pragma once

#include <CLI/App.hpp>
#include <string>
#include <vector>

/// Positional arguments of any number, taken as they are. The parser would split one in brackets at its commas, so
/// such arguments go through it marked.
namespace nipcctl {

/// The arguments for `app.parse`, which wants the last one first.
std::vector<std::string> markedArguments(int argc, char** argv);

/// The text without marks, for a message of the parser.
std::string unmarked(std::string text);

/// Adds such arguments, at least one, to a command.
void addNames(CLI::App& command, const std::string& label, std::vector<std::string>& names, const std::string& help);

}  // namespace nipcctl
