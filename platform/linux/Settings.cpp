#include "Settings.h"

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

namespace nexnipc {
namespace {

const char* read(const char* name) {
    const char* value = ::secure_getenv(name);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

// The number that a variable holds, or `otherwise` when it holds none from 0 to `largest`.
std::uint64_t readNumber(const char* name, std::uint64_t otherwise, std::uint64_t largest) {
    const char* text = read(name);
    if (text == nullptr || *text < '0' || *text > '9') return otherwise;
    char* end = nullptr;
    errno = 0;
    const unsigned long long value = std::strtoull(text, &end, 10);
    return errno != 0 || *end != '\0' || value > largest ? otherwise : value;
}

}  // namespace

std::string rootDirectory() { return "/run/nex_nipc"; }

std::string ownDirectory() {
    if (const char* given = read("NEX_NIPC_DIR")) {
        std::string path = given;
        while (path.size() > 1 && path.back() == '/') path.pop_back();
        return path;
    }
    const unsigned user = ::geteuid();
    if (user == 0) return rootDirectory();
    const std::string runtime = "/run/user/" + std::to_string(user);
    struct stat status {};
    if (::stat(runtime.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) return runtime + "/nex_nipc";
    return "/tmp/nex_nipc-" + std::to_string(user);
}

std::optional<unsigned> trustedGroup() {
    const char* name = read("NEX_NIPC_GROUP");
    if (name == nullptr) return std::nullopt;
    std::vector<char> buffer(4096);
    group entry{};
    group* found = nullptr;
    while (::getgrnam_r(name, &entry, buffer.data(), buffer.size(), &found) == ERANGE) {
        if (buffer.size() > (1U << 20)) return std::nullopt;
        buffer.resize(buffer.size() * 2);
    }
    if (found == nullptr) return std::nullopt;
    return entry.gr_gid;
}

std::uint32_t maxSyncLength() {
    return static_cast<std::uint32_t>(readNumber("NEX_NIPC_MAX_SYNC", 64U << 20, 1U << 30));
}

std::int64_t syncTimeoutMs() {
    return static_cast<std::int64_t>(readNumber("NEX_NIPC_SYNC_TIMEOUT_MS", 0, 24U * 3600 * 1000));
}

std::chrono::microseconds spinLimit() { return std::chrono::microseconds(readNumber("NEX_NIPC_SPIN", 20, 1000)); }

}  // namespace nexnipc
