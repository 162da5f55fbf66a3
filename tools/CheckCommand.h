// kord check: walks a disk's metadata (and its parents') and lists every
// inconsistency. Exit status 0: clean; 1: problems found; 2: the check
// could not run.
#pragma once

#include <CLI/CLI.hpp>

namespace kordtool {

void addCheckCommand(CLI::App& app, int& exitCode);

} // namespace kordtool
