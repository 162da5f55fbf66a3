// kord passwd: gives an encrypted disk a new password. The disk's data key
// stays; only its wrapping in the descriptor changes, so no grain is
// rewritten.
#pragma once

#include <CLI/CLI.hpp>

namespace kordtool {

void addPasswdCommand(CLI::App& app);

} // namespace kordtool
