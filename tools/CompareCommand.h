// kord compare: whether two disks or raw images (in any mix) hold the same
// virtual contents. Exit status as other disk-image tools give it: 0
// identical, 1 different (the first differing offset is printed), 2 the
// comparison could not be made.
#pragma once

#include <CLI/CLI.hpp>

namespace kordtool {

constexpr int exitCompareDifferent = 1;

void addCompareCommand(CLI::App& app, int& exitCode);

} // namespace kordtool
