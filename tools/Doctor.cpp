// nipcctl doctor: why a client would not reach a service, in plain words, and what to do.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Commands.h"
#include "Endpoint.h"
#include "Link.h"
#include "Output.h"
#include "Probe.h"
#include "ProcessState.h"
#include "Settings.h"
#include "Trust.h"

namespace nipcctl {
namespace {

constexpr unsigned clientsOfAService = 512;
/// A client takes two descriptors and one for each concurrent call; the rest is for whatever else it does.
constexpr std::size_t descriptorsWanted = 32;

/// What has been found, in order; printed at once, since a probe may take its time.
class Findings {
public:
    explicit Findings(bool json) : json_(json) {}

    void good(const std::string& what) { add("ok", what, ""); }
    void note(const std::string& what) { add("note", what, ""); }
    void trouble(const std::string& what, const std::string& remedy) {
        troubled_ = true;
        add("trouble", what, remedy);
    }
    bool troubled() const { return troubled_; }

private:
    void add(const std::string& kind, const std::string& what, const std::string& remedy) {
        if (json_) {
            Json line{{"finding", kind}, {"text", what}};
            if (!remedy.empty()) line["remedy"] = remedy;
            return writeJson(line);
        }
        const std::string label = kind + std::string(9 - kind.size(), ' ');
        writeLine((kind == "ok"     ? coloured(Colour::Green, label)
                   : kind == "note" ? label
                                    : coloured(Colour::Red, label)) +
                  what);
        if (!remedy.empty()) writeLine("         do: " + remedy);
    }

    const bool json_;
    bool troubled_ = false;
};

void examineDescriptors(Findings& findings, const std::string& whose, pid_t pid, std::size_t wanted) {
    const std::optional<DescriptorUse> use = descriptorUse(pid);
    if (!use) return;
    const std::string figures = std::to_string(use->used) + " of " + std::to_string(use->limit) + " descriptors open";
    if (use->used + wanted > use->limit) {
        findings.trouble(whose + " has " + figures,
                         "raise its limit (ulimit -n, or LimitNOFILE of its unit), or look for what it leaves open");
    } else {
        findings.good(whose + " has " + figures);
    }
}

void examineSurroundings(Findings& findings) {
    if (::access("/proc/self/fd", X_OK) != 0)
        findings.trouble("/proc is not there, through which services are opened", "mount /proc");
    const char* const group = std::getenv("NEX_NIPC_GROUP");
    if (group != nullptr && *group != '\0' && !nexnipc::trustedGroup())
        findings.trouble("there is no group " + inQuotes(group) + ", which NEX_NIPC_GROUP names",
                         "create it, or set the variable to one that exists");
    examineDescriptors(findings, "a program started from here", ::getpid(), descriptorsWanted);
}

/// True when services may be looked for there.
bool examineDirectory(Findings& findings, const std::string& path, bool own) {
    const std::string name = "directory " + inQuotes(path);
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        const int error = errno;
        if (error == ENOENT) {
            findings.note(name + " is missing: no service has been offered there");
        } else if (own) {
            findings.trouble(name + " cannot be looked into: " + meaningOf(-error),
                             "mend the path or its modes, or name another directory by NEX_NIPC_DIR");
        }
        return false;
    }
    if (!S_ISDIR(status.st_mode)) {
        findings.trouble(inQuotes(path) + " is not a directory", "remove it, or name another one by NEX_NIPC_DIR");
        return false;
    }
    const std::string owner = userName(status.st_uid);
    if (status.st_uid != ::geteuid() && status.st_uid != 0) {
        findings.trouble(name + " belongs to " + owner + ", who is neither root nor the user of the client",
                         "chown it to one of them, or name another directory by NEX_NIPC_DIR");
        return false;
    }
    if (nexnipc::checkDirectory(status) != 0) {
        const bool all = (status.st_mode & S_IWOTH) != 0;
        findings.trouble(name + " may be written by " + (all ? "everybody" : "a group that is not NEX_NIPC_GROUP"),
                         "chmod " + std::string(all ? "o-w" : "g-w") + " " + inQuotes(path));
        return false;
    }
    if (::access(path.c_str(), X_OK) != 0) {
        if (!own) findings.note(name + " is root's alone");
        if (own)
            findings.trouble(name + " does not let " + userName(::geteuid()) + " in",
                             "give the user access to it, by mode or by group");
        return false;
    }
    findings.good(name + " belongs to " + owner + ", and nobody else may write there");
    return true;
}

std::string remedyFor(const Service& service) {
    switch (service.status) {
        case -EACCES:
            return "run the client as the service's user or as root, or set NEX_NIPC_GROUP for both to a group that "
                   "the client's user is in, and start the service again";
        case -ETIMEDOUT:
            return "see what process " + std::to_string(service.pid) + " is waiting for";
        case -EPROTO:
        case -EPROTONOSUPPORT:
            return "have both sides use the same version of the library";
        default:
            return "start the service again";
    }
}

void examineService(Findings& findings, const Service& service) {
    const std::string name = "service " + std::to_string(service.uuid);
    const std::string process =
        service.pid > 0 ? ", process " + std::to_string(service.pid) + " (" + escaped(processName(service.pid)) + ")"
                        : "";
    if (service.isStale())
        return findings.trouble(name + ": nobody listens at its socket, since the process that offered it has ended",
                                "start the service again");
    const bool frozen = service.pid > 0 && isStopped(service.pid);
    if (frozen) {
        findings.trouble(name + process + " is stopped", "kill -CONT " + std::to_string(service.pid));
    } else if (service.status != 0) {
        findings.trouble(name + process + ": " + meaningOf(service.status), remedyFor(service));
    } else if (service.clients >= clientsOfAService) {
        findings.trouble(name + process + " has as many clients as it takes",
                         "look for who connects without end; nipcctl list shows their number");
    } else {
        findings.good(name + process + " of " + userName(service.user) + " responds; it has " +
                      std::to_string(service.clients) + " clients");
    }
    if (service.pid > 0) examineDescriptors(findings, "process " + std::to_string(service.pid), service.pid, 3);
}

void examinePresent(Findings& findings, const Service& service) {
    if (!service.isStale()) return examineService(findings, service);
    findings.note("service " + std::to_string(service.uuid) + " is offered no more: its process has ended");
}

/// As a client does: the first directory where somebody offers it.
void examineWanted(Findings& findings, std::uint16_t uuid, const std::vector<std::string>& directories) {
    std::optional<Service> stale;
    for (const std::string& directory : directories) {
        const Service service = probe(directory, uuid);
        if (service.status == -ENOENT) continue;
        if (!service.isStale()) return examineService(findings, service);
        if (!stale) stale = service;
    }
    if (stale) return examineService(findings, *stale);
    findings.trouble("service " + std::to_string(uuid) + ": nobody offers it",
                     "start it as " + userName(::geteuid()) + (::geteuid() == 0 ? "" : " or root") +
                         ", with the same NEX_NIPC_DIR as the client, or compare the numbers on both sides");
}

Exit runDoctor(std::optional<std::uint16_t> uuid, bool json) {
    Findings findings(json);
    examineSurroundings(findings);
    std::vector<std::string> usable;
    const std::vector<std::string> searched = nexnipc::searchedDirectories();
    for (const std::string& path : searched)
        if (examineDirectory(findings, path, path == searched.front())) usable.push_back(path);
    if (uuid) {
        examineWanted(findings, *uuid, usable);
    } else {
        int status = 0;
        for (const std::string& path : usable)
            for (const std::uint16_t present : socketsIn(path, status)) examinePresent(findings, probe(path, present));
    }
    return findings.troubled() ? Exit::Negative : Exit::Ok;
}

}  // namespace

void addDoctor(CLI::App& app, Run& run) {
    const auto uuid = std::make_shared<std::optional<std::uint16_t>>();
    const auto json = std::make_shared<bool>(false);
    CLI::App& command = *app.add_subcommand("doctor", "Says why a client would not reach a service, and what to do");
    command.add_option("-u,--uuid", *uuid, "Number of the service; without it, all that are present");
    command.add_flag("--json", *json, "Writes a line of JSON per finding");
    command.callback([&run, uuid, json] { run = [uuid, json] { return runDoctor(*uuid, *json); }; });
}

}  // namespace nipcctl
