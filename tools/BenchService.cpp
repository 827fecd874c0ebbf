#include "BenchService.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <system_error>
#include <vector>

#include "Commands.h"
#include "Link.h"

namespace nipcctl {
namespace bench {

std::int64_t now() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

ServiceProcess::ServiceProcess(std::uint16_t uuid) {
    directory_ = (std::filesystem::temp_directory_path() / "nipcctl-bench.XXXXXX").string();
    std::array<int, 2> ends{};
    if (::mkdtemp(directory_.data()) == nullptr || ::pipe2(ends.data(), O_CLOEXEC) != 0)
        throw Failure(Exit::InputOutput, "no place for a service: " + std::generic_category().message(errno));
    ::setenv("NEX_NIPC_DIR", directory_.c_str(), 1);
    lifeline_ = ends[1];

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[0], STDIN_FILENO);
    std::array<std::string, 4> words = {"nipcctl", "bench-service", "--uuid", std::to_string(uuid)};
    std::array<char*, 5> argv{};
    for (std::size_t i = 0; i < words.size(); ++i) argv[i] = words[i].data();
    const int error = ::posix_spawn(&pid_, "/proc/self/exe", &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(ends[0]);
    if (error != 0) {
        pid_ = -1;
        throw Failure(Exit::InputOutput, "the service cannot be started: " + std::generic_category().message(error));
    }
}

ServiceProcess::~ServiceProcess() {
    ::kill(pid_, SIGKILL);
    ::close(lifeline_);
    while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

namespace {

std::vector<char> copyOf(const char* data, unsigned int length) {
    return length > 0 ? std::vector<char>(data, data + length) : std::vector<char>();
}

Exit serve(const ServiceOptions& options) {
    const Link link = makeServer(options);
    nipcconnector::NIPCConnector& connector = *link.connector;
    connector.registerSyncRequestHandler(echo, copyOf);
    connector.registerAsyncRequestHandler(echo, [](const char* data, unsigned int length, const auto& respond,
                                                   const std::string&) { respond(true, data, length); });
    connector.registerAsyncRequestHandler(
        take, [](const char*, unsigned int, const auto& respond, const std::string&) { respond(true, "taken", 5); });
    connector.registerSyncRequestHandler(publish, [&connector](const char* data, unsigned int length) {
        const std::string number(data, length);
        std::string payload(std::strtoul(number.c_str(), nullptr, 10), '\0');
        const std::int64_t time = now();
        if (payload.size() >= sizeof(time)) std::memcpy(payload.data(), &time, sizeof(time));
        connector.publishEvent(event, payload);
        return std::vector<char>(1);
    });
    offer(link);
    char byte = 0;
    while (::read(STDIN_FILENO, &byte, 1) > 0) {
    }
    return Exit::Ok;
}

}  // namespace
}  // namespace bench

void addBenchService(CLI::App& app, Run& run) {
    const auto options = std::make_shared<ServiceOptions>();
    CLI::App& command = *app.add_subcommand("bench-service", "What bench measures")->group("");
    options->addTo(command);
    command.callback([&run, options] { run = [options] { return bench::serve(*options); }; });
}

}  // namespace nipcctl
