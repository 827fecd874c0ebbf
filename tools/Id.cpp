// nipcctl id: the numbers that names have on the wire.
#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "Names.h"
#include "Output.h"
#include "nipcconnector/FunctionId.h"

namespace nipcctl {

void addId(CLI::App& app, Run& run) {
    const auto names = std::make_shared<std::vector<std::string>>();
    const auto json = std::make_shared<bool>(false);
    CLI::App& command = *app.add_subcommand("id", "Writes the identifiers of request and event names");
    addNames(command, "NAME", *names, "Names");
    command.add_flag("--json", *json, "Writes a line of JSON per name");
    command.callback([&run, names, json] {
        run = [names, json] {
            for (const std::string& name : *names) {
                const nipcconnector::FunctionId id = nipcconnector::computeFunctionId(name);
                if (*json) {
                    writeJson({{"id", id}, {"name", jsonText(name)}});
                } else {
                    writeLine(std::to_string(id) + " " + escaped(name));
                }
            }
            return Exit::Ok;
        };
    });
}

}  // namespace nipcctl
