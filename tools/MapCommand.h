// kord map: which ranges of a disk hold data, which read as zeros and which
// its parent chain supplies, with the host offset of data stored as is.
// JSON entries have the shape other disk-image tools print: start, length,
// depth, present, zero, data and offset.
#pragma once

#include <CLI/CLI.hpp>

namespace kordtool {

void addMapCommand(CLI::App& app);

} // namespace kordtool
