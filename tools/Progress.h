// The -p progress line on standard error: percent done, throughput and the
// time left, rewritten in place a few times a second.
#pragma once

#include <chrono>
#include <string>

namespace kordtool {

class CProgress {
public:
    // A disabled progress prints nothing.
    CProgress(bool enabled, const std::string& label);
    ~CProgress();
    CProgress(const CProgress&) = delete;
    CProgress& operator=(const CProgress&) = delete;

    // `done` of `total` bytes. Cheap when called often: the line is redrawn
    // at most every quarter second.
    void update(long long done, long long total);
    // Draws the final state and ends the line.
    void finish();

private:
    void draw(bool final);

    bool enabled;
    bool drawn = false;
    std::string label;
    long long done = 0;
    long long total = 0;
    std::chrono::steady_clock::time_point start;
    std::chrono::steady_clock::time_point lastDraw;
};

} // namespace kordtool
