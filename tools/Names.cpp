#include "Names.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace nipcctl {
namespace {

constexpr char mark = '\1';
constexpr std::array<std::string_view, 3> commandsWithNames = {"listen", "id", "lint"};

}  // namespace

std::vector<std::string> markedArguments(int argc, char** argv) {
    std::vector<std::string> arguments(argv + 1, argv + argc);
    const bool marks = argc > 1 && std::count(commandsWithNames.begin(), commandsWithNames.end(), arguments[0]) > 0;
    for (std::string& argument : arguments)
        if (marks && !argument.empty() && (argument[0] == '[' || argument[0] == mark)) argument.insert(0, 1, mark);
    std::reverse(arguments.begin(), arguments.end());
    return arguments;
}

std::string unmarked(std::string text) {
    text.erase(std::remove(text.begin(), text.end(), mark), text.end());
    return text;
}

void addNames(CLI::App& command, const std::string& label, std::vector<std::string>& names, const std::string& help) {
    const auto withoutMark = [](std::string name) {
        if (name.find(mark) == 0) name.erase(0, 1);
        return name;
    };
    command.add_option(label, names, help)->required()->transform(withoutMark, "");
}

}  // namespace nipcctl
