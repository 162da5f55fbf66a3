// Sizes on the command line ("64M", "1G", "4096") and in listings.
#pragma once

#include <string>

namespace kordtool {

// Bytes: a decimal number with an optional K, M, G or T suffix (powers of
// 1024, either letter case). Throws the tool's error for anything else.
long long parseSize(const std::string& text);

// "64 MiB", "1.5 GiB", "512 bytes": for people, not for parsing.
std::string formatSize(long long bytes);

} // namespace kordtool
