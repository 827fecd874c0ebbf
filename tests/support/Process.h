#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

/// Real processes for tests: a test program starts itself again in one of its roles and talks with it in
/// lines. No process outlives the test program.
namespace nipctest {

/// How long anything may take that is expected to happen: generous, for slow machines and sanitizers.
constexpr std::chrono::seconds kPatience{20};

/// A directory of its own for the services of one test, named by NEX_NIPC_DIR; removed at the end.
class ServiceDirectory {
public:
    ServiceDirectory();
    ~ServiceDirectory();
    ServiceDirectory(const ServiceDirectory&) = delete;
    ServiceDirectory& operator=(const ServiceDirectory&) = delete;
    const std::string path;
};

/// The command that starts this program; the emulator comes first where the build machine cannot run it by itself.
std::vector<std::string> thisProgram();

/// This program again, or another one, in a role. Killed when the object goes.
class Process {
public:
    explicit Process(const std::vector<std::string>& roleAndArguments,
                     std::vector<std::string> program = thisProgram());
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    pid_t pid() const { return pid_; }
    void send(const std::string& line);
    /// The next line it says; empty when it has ended or says nothing for kPatience.
    std::string hear();
    void kill();
    /// Its exit status when it ends, 128 + the signal that ended it, or -1 when it hangs (and is killed).
    int wait();

private:
    void reap();

    pid_t pid_ = -1;
    std::FILE* channel_ = nullptr;
    int status_ = -1;
};

/// What a program does in a role: the rest of the arguments in, exit status out.
using Role = int (*)(const std::vector<std::string>& arguments);

/// Called first in main. -1: this is no role, go on; else the exit status.
int runRole(int argc, char** argv, const std::map<std::string, Role>& roles);

/// In a role: tells the parent one line, and waits for one of it ("" at the parent's end).
void say(const std::string& line);
std::string hearParent();

/// Entries of /proc/PID/fd and /proc/PID/task.
std::size_t descriptorCount(pid_t pid);
std::size_t taskCount(pid_t pid);

}  // namespace nipctest
