#include "Sizes.h"

#include "ToolSupport.h"

#include <cctype>
#include <climits>
#include <cstdio>

namespace kordtool {

long long parseSize(const std::string& text)
{
    zu::CError bad = toolError("Invalid size: '" + text + "' (a number with an optional K, M, G or T suffix).");
    size_t digits = 0;
    long long value = 0;
    while (digits < text.size() && std::isdigit(static_cast<unsigned char>(text[digits]))) {
        int digit = text[digits] - '0';
        if (value > (LLONG_MAX - digit) / 10) throw bad;
        value = value * 10 + digit;
        ++digits;
    }
    if (digits == 0 || text.size() - digits > 1) throw bad;
    int shift = 0;
    if (digits < text.size()) {
        switch (std::toupper(static_cast<unsigned char>(text[digits]))) {
        case 'K': shift = 10; break;
        case 'M': shift = 20; break;
        case 'G': shift = 30; break;
        case 'T': shift = 40; break;
        default: throw bad;
        }
    }
    if (value > (LLONG_MAX >> shift)) throw bad;
    return value << shift;
}

std::string formatSize(long long bytes)
{
    static const char* const units[] = {"KiB", "MiB", "GiB", "TiB", "PiB"};
    if (bytes < 1024) return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
    double value = static_cast<double>(bytes);
    int unit = -1;
    while (value >= 1024 && unit < 4) {
        value /= 1024;
        ++unit;
    }
    char text[32];
    bool whole = value == static_cast<double>(static_cast<long long>(value));
    std::snprintf(text, sizeof text, whole ? "%.0f %s" : "%.1f %s", value, units[unit]);
    return text;
}

} // namespace kordtool
