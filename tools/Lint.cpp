// nipcctl lint: finds what nothing at run time can tell: two names of one service with the same identifier.
#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "Input.h"
#include "Names.h"
#include "Output.h"
#include "nipcconnector/FunctionId.h"

namespace nipcctl {
namespace {

using nipcconnector::computeFunctionId;
using nipcconnector::FunctionId;

struct Name {
    std::string text;
    std::string place;
};

/// One name per line; the file's last line may go without its end, and lines may end as on other systems.
std::vector<Name> readNames(const std::string& path) {
    const std::string content = readAll(path);
    std::vector<Name> names;
    for (std::size_t start = 0; start < content.size();) {
        const std::size_t end = std::min(content.find('\n', start), content.size());
        std::string text = content.substr(start, end - start);
        if (!text.empty() && text.back() == '\r') text.pop_back();
        names.push_back({text, escaped(path) + ":" + std::to_string(names.size() + 1)});
        start = end + 1;
    }
    return names;
}

/// The name with the least number behind it whose identifier nobody has.
std::string freeVariant(const std::string& text, const std::map<FunctionId, Name>& taken) {
    for (unsigned number = 2;; ++number) {
        std::string variant = text + std::to_string(number);
        if (taken.count(computeFunctionId(variant)) == 0) return variant;
    }
}

Exit runLint(const std::vector<std::string>& files) {
    std::vector<Name> names;
    for (const std::string& file : files) {
        std::vector<Name> more = readNames(file);
        names.insert(names.end(), more.begin(), more.end());
    }
    std::map<FunctionId, Name> byId;
    for (const Name& name : names) byId.emplace(computeFunctionId(name.text), name);
    Exit result = Exit::Ok;
    for (const Name& name : names) {
        const FunctionId id = computeFunctionId(name.text);
        const Name& first = byId.at(id);
        if (name.text.empty()) {
            complain(name.place + ": the name is empty, which stands for every name that is not known");
        } else if (first.text != name.text) {
            complain(name.place + ": " + inQuotes(name.text) + " has the identifier " + std::to_string(id) + " of " +
                     inQuotes(first.text) + " (" + first.place + "), while " + inQuotes(freeVariant(name.text, byId)) +
                     " is free");
        } else {
            continue;
        }
        result = Exit::Negative;
    }
    return result;
}

}  // namespace

void addLint(CLI::App& app, Run& run) {
    const auto files = std::make_shared<std::vector<std::string>>();
    CLI::App& command = *app.add_subcommand("lint", "Checks that all names of a service have identifiers of their own");
    addNames(command, "FILE", *files, "Lists of names, one per line: all requests and events of one service together");
    command.callback([&run, files] { run = [files] { return runLint(*files); }; });
}

}  // namespace nipcctl
