#include "Process.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <stdexcept>

namespace nipctest {
namespace {

constexpr int kPatienceMs = static_cast<int>(std::chrono::milliseconds(kPatience).count());

std::string makeDirectory() {
    std::string name = (std::filesystem::temp_directory_path() / "nipctest.XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("mkdtemp");
    return name;
}

std::size_t entries(pid_t pid, const char* kind) {
    const std::filesystem::path directory = "/proc/" + std::to_string(pid) + "/" + kind;
    std::size_t count = 0;
    std::error_code ignored;
    for (std::filesystem::directory_iterator i(directory, ignored), end; i != end; i.increment(ignored)) ++count;
    return count;
}

}  // namespace

ServiceDirectory::ServiceDirectory() : path(makeDirectory()) { setenv("NEX_NIPC_DIR", path.c_str(), 1); }

ServiceDirectory::~ServiceDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

std::vector<std::string> thisProgram() {
    std::vector<std::string> words;
#ifdef NIPC_TEST_EMULATOR
    std::istringstream emulator(NIPC_TEST_EMULATOR);
    for (std::string word; emulator >> word;) words.push_back(word);
#endif
    words.push_back(std::filesystem::read_symlink("/proc/self/exe"));
    return words;
}

Process::Process(const std::vector<std::string>& roleAndArguments, std::vector<std::string> program) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) throw std::runtime_error("socketpair");
    channel_ = fdopen(ends[0], "r");
    const timeval patience{kPatience.count(), 0};
    setsockopt(ends[0], SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    program.insert(program.end(), {"--role", std::to_string(getpid())});
    program.insert(program.end(), roleAndArguments.begin(), roleAndArguments.end());
    std::vector<char*> argv;
    argv.reserve(program.size() + 1);
    for (std::string& word : program) argv.push_back(word.data());
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    const int error = posix_spawnp(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    if (error != 0) throw std::runtime_error("posix_spawn");
}

Process::~Process() {
    kill();
    std::fclose(channel_);
}

void Process::send(const std::string& line) {
    const std::string text = line + "\n";
    ::send(fileno(channel_), text.data(), text.size(), MSG_NOSIGNAL);
}

std::string Process::hear() {
    std::string line;
    for (int c = std::fgetc(channel_); c != '\n'; c = std::fgetc(channel_)) {
        if (c == EOF) return {};
        line += static_cast<char>(c);
    }
    return line;
}

void Process::kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    reap();
}

int Process::wait() {
    if (pid_ <= 0) return status_;
    const int pidFd = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
    pollfd ended{pidFd, POLLIN, 0};
    const bool hangs = poll(&ended, 1, kPatienceMs) <= 0;
    close(pidFd);
    if (hangs) ::kill(pid_, SIGKILL);
    reap();
    return hangs ? -1 : status_;
}

void Process::reap() {
    int status = 0;
    waitpid(pid_, &status, 0);
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    pid_ = -1;
}

int runRole(int argc, char** argv, const std::map<std::string, Role>& roles) {
    if (argc < 4 || std::string(argv[1]) != "--role") return -1;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != std::atoi(argv[2])) return 1;
    const auto role = roles.find(argv[3]);
    return role == roles.end() ? 1 : role->second(std::vector<std::string>(argv + 4, argv + argc));
}

void say(const std::string& line) {
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

std::string hearParent() {
    std::string line;
    std::getline(std::cin, line);
    return line;
}

std::size_t descriptorCount(pid_t pid) { return entries(pid, "fd"); }
std::size_t taskCount(pid_t pid) { return entries(pid, "task"); }

}  // namespace nipctest
