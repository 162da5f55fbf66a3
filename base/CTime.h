// Wall-clock time, for log lines and progress reports.
#pragma once

namespace zu {

class CTime {
public:
    // Microseconds since 1970-01-01 00:00:00 UTC.
    static CTime now();
    // A monotonic clock in microseconds, for measuring durations.
    static long long monotonicMicros();

    explicit CTime(long long microsSinceEpoch = 0) : micros(microsSinceEpoch) {}
    long long getMicrosSinceEpoch() const { return micros; }
    double getSecondsSinceEpoch() const { return static_cast<double>(micros) / 1e6; }

private:
    long long micros;
};

} // namespace zu
