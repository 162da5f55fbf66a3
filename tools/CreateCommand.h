// kord create: makes a new, empty disk of any create type, or a delta disk
// of a parent.
#pragma once

#include <CLI/CLI.hpp>

namespace kordtool {

void addCreateCommand(CLI::App& app);

} // namespace kordtool
