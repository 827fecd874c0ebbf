#include "Probe.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string_view>

#include "Endpoint.h"
#include "Handshake.h"

namespace nipcctl {
namespace {

constexpr int dialLimitMs = 2000;

/// The number that the name of a socket stands for; -1 for any other file.
int uuidOf(const std::string& file) {
    const int number = std::atoi(file.c_str());
    if (number < 0 || number > 65535) return -1;
    return file == nexnipc::socketName(static_cast<std::uint16_t>(number)) ? number : -1;
}

}  // namespace

bool Service::isStale() const { return status == -ECONNREFUSED; }

Service probe(const std::string& directory, std::uint16_t uuid) {
    Service service;
    service.directory = directory;
    service.uuid = uuid;
    nexnipc::PacketSocket socket;
    service.status = nexnipc::dialIn(directory, uuid, dialLimitMs, socket);
    if (service.status != 0) return service;
    nexnipc::Greeting greeting;
    service.status = nexnipc::shakeHands(socket, uuid, nexnipc::kHelloProbe, greeting);
    // The kernel's word for who it is, not the service's own.
    service.pid = greeting.peer.pid;
    service.user = greeting.peer.uid;
    service.since = static_cast<std::time_t>(greeting.welcome.startedAt);
    service.clients = greeting.welcome.clients;
    return service;
}

std::vector<std::uint16_t> socketsIn(const std::string& directory, int& status) {
    std::vector<std::uint16_t> uuids;
    nexnipc::Fd checked;
    status = nexnipc::openDirectory(directory, checked);
    if (status != 0) return uuids;
    const std::string path = "/proc/self/fd/" + std::to_string(checked.get());
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(::opendir(path.c_str()), ::closedir);
    if (!entries) status = -errno;
    while (const dirent* entry = entries ? ::readdir(entries.get()) : nullptr) {
        const int uuid = uuidOf(entry->d_name);
        if (uuid >= 0) uuids.push_back(static_cast<std::uint16_t>(uuid));
    }
    std::sort(uuids.begin(), uuids.end());
    return uuids;
}

std::string processName(pid_t pid) {
    std::string name;
    std::getline(std::ifstream("/proc/" + std::to_string(pid) + "/comm"), name);
    return name.empty() ? "?" : name;
}

std::string userName(uid_t user) {
    std::array<char, 16384> buffer{};
    passwd entry{};
    passwd* found = nullptr;
    ::getpwuid_r(user, &entry, buffer.data(), buffer.size(), &found);
    return found != nullptr ? found->pw_name : std::to_string(user);
}

}  // namespace nipcctl
