#include "Progress.h"

#include <cstdio>

namespace kordtool {

namespace {

constexpr auto redrawInterval = std::chrono::milliseconds(250);

std::string formatDuration(double seconds)
{
    long long s = static_cast<long long>(seconds + 0.5);
    char text[32];
    if (s >= 3600)
        std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", s / 3600, s / 60 % 60, s % 60);
    else
        std::snprintf(text, sizeof text, "%lld:%02lld", s / 60, s % 60);
    return text;
}

} // namespace

CProgress::CProgress(bool enabled, const std::string& label)
    : enabled(enabled), label(label), start(std::chrono::steady_clock::now()), lastDraw(start)
{
}

CProgress::~CProgress()
{
    // A run cut short by an error still leaves the terminal on a new line.
    if (drawn) std::fputc('\n', stderr);
}

void CProgress::update(long long doneNow, long long totalNow)
{
    done = doneNow;
    total = totalNow;
    if (!enabled) return;
    auto now = std::chrono::steady_clock::now();
    if (drawn && now - lastDraw < redrawInterval) return;
    lastDraw = now;
    draw(false);
}

void CProgress::finish()
{
    if (!enabled) return;
    draw(true);
    std::fputc('\n', stderr);
    drawn = false;
}

void CProgress::draw(bool final)
{
    double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    double fraction = total > 0 ? static_cast<double>(done) / static_cast<double>(total) : 1.0;
    double megabytesPerSecond = elapsed > 0 ? static_cast<double>(done) / 1e6 / elapsed : 0.0;
    std::string left = final ? "done in " + formatDuration(elapsed)
                             : (fraction > 0 ? formatDuration(elapsed / fraction - elapsed) + " left" : "--:-- left");
    std::fprintf(stderr, "\r%s: %5.1f%%  %8.1f MB/s  %-16s", label.c_str(), 100.0 * fraction, megabytesPerSecond,
                 left.c_str());
    std::fflush(stderr);
    drawn = true;
}

} // namespace kordtool
