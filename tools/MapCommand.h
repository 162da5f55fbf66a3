// kord map: the byte ranges each disk of a chain holds itself, layer by
// layer from the named disk down to the last parent.
#pragma once

#include <CLI/CLI.hpp>

namespace kordtool {

void addMapCommand(CLI::App& app);

} // namespace kordtool
