// kord convert: raw image to disk, disk to raw image, and disk to disk of
// any create type, plain or encrypted.
#pragma once

#include <CLI/CLI.hpp>

namespace kordtool {

void addConvertCommand(CLI::App& app);

} // namespace kordtool
