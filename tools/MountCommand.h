// kord mount: a disk as one raw file, DIR/<name>.raw, through FUSE
// (read-only unless -w), served until kord umount, fusermount3 -u or
// SIGTERM, which write the disk's pending changes and release its lock.
#pragma once

#include <CLI/CLI.hpp>

namespace kordtool {

// Adds "mount" and "umount".
void addMountCommands(CLI::App& app);

} // namespace kordtool
