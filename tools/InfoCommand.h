// kord info: what a disk is made of (type, size, grains, compression,
// encryption, content IDs, adapter and geometry, every extent file, the
// space accounting) and the same for every disk of its parent chain.
#pragma once

#include <CLI/CLI.hpp>

namespace kordtool {

void addInfoCommand(CLI::App& app);

} // namespace kordtool
