// kord check: walks a disk's metadata (and its parents') and lists every
// inconsistency. Exit status as other disk-image tools give it: 0 clean,
// 2 damage found, 3 only leaked space found (the data reads as written),
// 1 the check could not be completed.
#pragma once

#include <CLI/CLI.hpp>

namespace kordtool {

constexpr int exitCheckIncomplete = 1;
constexpr int exitCheckCorrupt = 2;
constexpr int exitCheckLeaksOnly = 3;

// The command sets exitCode; an error that stops it is printed and gives
// exitCheckIncomplete.
CLI::App* addCheckCommand(CLI::App& app, int& exitCode);

} // namespace kordtool
