// kord write: bytes from a file or standard input into a disk at an offset.
#pragma once

#include <CLI/CLI.hpp>

namespace kordtool {

void addWriteCommand(CLI::App& app);

} // namespace kordtool
