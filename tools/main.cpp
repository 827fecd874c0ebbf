// nipcctl: services of libnipcconnector from the command line.
#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "Commands.h"
#include "Names.h"
#include "Output.h"

namespace {

using namespace nipcctl;

constexpr const char* footer =
    "Exit codes: 0 done; 1 the answer is no; 2 usage; 3 unreachable; 4 too late; 5 input or output.";

int parse(CLI::App& app, int argc, char** argv) {
    try {
        app.parse(markedArguments(argc, argv));
        return -1;
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) return app.exit(error);  // help or version
        complain(escaped(unmarked(error.what())) + " (see nipcctl --help)");
        return static_cast<int>(Exit::Usage);
    }
}

Exit runGuarded(const Run& run) {
    try {
        return run();
    } catch (const Failure& failure) {
        if (*failure.what() != '\0') complain(failure.what());
        return failure.code;
    } catch (const std::exception& error) {
        complain(error.what());
        return Exit::InputOutput;
    }
}

}  // namespace

int main(int argc, char** argv) try {
    std::signal(SIGPIPE, SIG_IGN);
    CLI::App app("Looks at, calls and offers services of libnipcconnector.", "nipcctl");
    app.require_subcommand(1);
    app.set_version_flag("--version", "nipcctl " NIPCCTL_VERSION);
    app.footer(footer);
    Run run;
#ifdef NIPCCTL_LINUX
    addList(app, run);
    addDoctor(app, run);
#endif
    addCall(app, run);
    addListen(app, run);
    addServe(app, run);
    addId(app, run);
    addLint(app, run);
    addBench(app, run);
    addBenchService(app, run);
    if (const int status = parse(app, argc, argv); status >= 0) return status;

    const Exit code = runGuarded(run);
    // A request that nobody answers keeps its thread inside the connector: do not wait for it.
    if (code == Exit::Timeout) std::_Exit(static_cast<int>(code));
    return static_cast<int>(code);
} catch (const std::exception& error) {
    std::fprintf(stderr, "nipcctl: %s\n", error.what());
    return static_cast<int>(nipcctl::Exit::InputOutput);
}
