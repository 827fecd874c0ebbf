#pragma once

#include <CLI/App.hpp>

#include "Exit.h"

/// Each command is a file of its own; it adds itself to the command line, and puts what it does into `run`.
namespace nipcctl {

using Run = std::function<Exit()>;

void addList(CLI::App& app, Run& run);
void addCall(CLI::App& app, Run& run);
void addListen(CLI::App& app, Run& run);
void addServe(CLI::App& app, Run& run);
void addId(CLI::App& app, Run& run);
void addLint(CLI::App& app, Run& run);
void addBench(CLI::App& app, Run& run);
void addDoctor(CLI::App& app, Run& run);

/// The hidden command that `bench` starts this program with: the service that is measured.
void addBenchService(CLI::App& app, Run& run);

}  // namespace nipcctl
