// nipcctl list: the services that are there, and what others have left behind.
#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "Endpoint.h"
#include "Link.h"
#include "Output.h"
#include "Probe.h"

namespace nipcctl {
namespace {

std::string stateOf(const Service& service) {
    if (service.status == 0) return "ok";
    return service.isStale() ? "stale: its process has ended, and the next to offer it takes over"
                             : meaningOf(service.status);
}

Json jsonOf(const Service& service) {
    Json object;
    object["uuid"] = service.uuid;
    object["directory"] = jsonText(service.directory);
    object["state"] = service.status == 0 ? "ok" : service.isStale() ? "stale" : "unreachable";
    object["status"] = service.status;
    if (service.status != 0) return object;
    object["pid"] = service.pid;
    object["process"] = jsonText(processName(service.pid));
    object["user"] = jsonText(userName(service.user));
    object["since"] = timeStamp(std::chrono::system_clock::from_time_t(service.since), false);
    object["clients"] = service.clients;
    return object;
}

std::vector<std::string> rowOf(const Service& service) {
    std::vector<std::string> row{std::to_string(service.uuid), "-", "-", "-", "-", "-"};
    if (service.status == 0)
        row = {std::to_string(service.uuid),
               std::to_string(service.pid),
               escaped(processName(service.pid)),
               escaped(userName(service.user)),
               timeStamp(std::chrono::system_clock::from_time_t(service.since), false),
               std::to_string(service.clients)};
    row.push_back(escaped(service.directory));
    row.push_back(coloured(service.status == 0 ? Colour::Green : Colour::Red, stateOf(service)));
    return row;
}

Exit runList(bool json) {
    std::vector<Service> services;
    Exit result = Exit::Ok;
    for (const std::string& directory : nexnipc::searchedDirectories()) {
        int status = 0;
        for (const std::uint16_t uuid : socketsIn(directory, status)) services.push_back(probe(directory, uuid));
        // What root keeps to itself is not there for others.
        const bool absent = status == -ENOENT || (status != 0 && directory != nexnipc::searchedDirectories().front());
        if (status == 0 || absent) continue;
        complain(inQuotes(directory) + " cannot be used: " + meaningOf(status) + " (nipcctl doctor says more)");
        result = Exit::Unreachable;
    }
    if (json) {
        Json all = Json::array();
        for (const Service& service : services) all.push_back(jsonOf(service));
        writeJson(all);
        return result;
    }
    if (services.empty()) return result;
    std::vector<std::vector<std::string>> rows{
        {"UUID", "PID", "PROCESS", "USER", "SINCE", "CLIENTS", "DIRECTORY", "STATE"}};
    for (const Service& service : services) rows.push_back(rowOf(service));
    writeOut(table(rows, "rrlllrll"));
    return result;
}

}  // namespace

void addList(CLI::App& app, Run& run) {
    const auto json = std::make_shared<bool>(false);
    CLI::App& command = *app.add_subcommand("list", "Lists the services that are present");
    command.add_flag("--json", *json, "Writes a JSON array");
    command.callback([&run, json] { run = [json] { return runList(*json); }; });
}

}  // namespace nipcctl
