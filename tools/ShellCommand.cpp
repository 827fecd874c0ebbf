#include "ShellCommand.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <mutex>
#include <set>
#include <utility>
#include <vector>

namespace nipcctl {
namespace {

class Pipe {
public:
    Pipe() {
        if (::pipe2(ends_.data(), O_CLOEXEC) != 0) ends_ = {-1, -1};
    }
    ~Pipe() {
        close(0);
        close(1);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    bool valid() const { return ends_[0] >= 0; }
    int end(std::size_t which) const { return ends_[which]; }
    void close(std::size_t which) {
        if (ends_[which] >= 0) ::close(std::exchange(ends_[which], -1));
    }

private:
    std::array<int, 2> ends_{-1, -1};
};

/// The commands that run, each the leader of its process group.
struct Running {
    std::mutex mutex;
    std::set<pid_t> pids;
};

Running& running() {
    static Running& all = *new Running;  // Commands may run until the very end of the process.
    return all;
}

/// Delivery threads block all signals, and this program ignores SIGPIPE and SIGTTIN: a command inherits none of that.
pid_t spawnShell(const std::string& command, int input, int output) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t signals;
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes, &signals);
    sigaddset(&signals, SIGPIPE);
    sigaddset(&signals, SIGTTIN);
    posix_spawnattr_setsigdefault(&attributes, &signals);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);

    std::array<std::string, 3> words = {"sh", "-c", command};
    std::array<char*, 4> argv = {words[0].data(), words[1].data(), words[2].data(), nullptr};
    pid_t pid = -1;
    const std::lock_guard<std::mutex> lock(running().mutex);
    const int error = ::posix_spawn(&pid, "/bin/sh", &actions, &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) return -1;
    running().pids.insert(pid);
    return pid;
}

/// True when it exited with 0. Its number is given back only when nobody can signal it any more.
bool awaitSuccess(pid_t pid) {
    siginfo_t ended{};
    while (::waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOWAIT) < 0 && errno == EINTR) {
    }
    const std::lock_guard<std::mutex> lock(running().mutex);
    running().pids.erase(pid);
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

/// Both at once, since a command may write before it has read all, or read nothing.
std::string exchange(Pipe& toCommand, Pipe& fromCommand, std::string_view input) {
    ::fcntl(toCommand.end(1), F_SETFL, O_NONBLOCK);
    std::string output;
    std::vector<char> buffer(65536);
    for (;;) {
        if (input.empty()) toCommand.close(1);
        std::array<pollfd, 2> ready = {pollfd{fromCommand.end(0), POLLIN, 0}, pollfd{toCommand.end(1), POLLOUT, 0}};
        if (::poll(ready.data(), ready.size(), -1) < 0 && errno != EINTR) return output;
        if (ready[1].revents != 0) {
            const ssize_t written = ::write(toCommand.end(1), input.data(), input.size());
            if (written > 0) {
                input.remove_prefix(static_cast<std::size_t>(written));
            } else if (errno != EAGAIN && errno != EINTR) {
                input = {};
            }
        }
        if (ready[0].revents == 0) continue;
        const ssize_t count = ::read(fromCommand.end(0), buffer.data(), buffer.size());
        if (count > 0) {
            output.append(buffer.data(), static_cast<std::size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            return output;
        }
    }
}

}  // namespace

CommandResult runShellCommand(const std::string& command, std::string_view input) {
    CommandResult result;
    Pipe toCommand;
    Pipe fromCommand;
    if (!toCommand.valid() || !fromCommand.valid()) return result;
    const pid_t pid = spawnShell(command, toCommand.end(0), fromCommand.end(1));
    if (pid < 0) return result;
    toCommand.close(0);
    fromCommand.close(1);
    result.output = exchange(toCommand, fromCommand, input);
    toCommand.close(1);
    fromCommand.close(0);
    result.succeeded = awaitSuccess(pid);
    return result;
}

void endShellCommands() {
    const std::lock_guard<std::mutex> lock(running().mutex);
    for (const pid_t pid : running().pids) ::kill(-pid, SIGTERM);
}

}  // namespace nipcctl
