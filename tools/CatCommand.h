// kord cat: the disk's virtual contents, parent data included, on standard
// output.
#pragma once

#include <CLI/CLI.hpp>

namespace kordtool {

void addCatCommand(CLI::App& app);

} // namespace kordtool
