// printf-style formatting into a zu::String with typed arguments:
//   String s = CStringFormat("size %lld of %s") << size << name;
// Conversions: %d %i %lld %ld (signed decimal), %u %llu (unsigned decimal),
// %x %llx (lower-case hex), %s (a String or text), %% (a percent sign).
// A conversion whose argument is missing stays as written; surplus
// arguments are ignored. Width and precision flags are not supported.
#pragma once

#include "base/String.h"

#include <string>
#include <vector>

namespace zu {

class CStringFormat {
public:
    explicit CStringFormat(const String& format) : format(format) {}

    CStringFormat& operator<<(long long value);
    CStringFormat& operator<<(unsigned long long value);
    CStringFormat& operator<<(int value) { return *this << static_cast<long long>(value); }
    CStringFormat& operator<<(long value) { return *this << static_cast<long long>(value); }
    CStringFormat& operator<<(unsigned value) { return *this << static_cast<unsigned long long>(value); }
    CStringFormat& operator<<(unsigned long value) { return *this << static_cast<unsigned long long>(value); }
    CStringFormat& operator<<(const String& value);
    CStringFormat& operator<<(const char* value) { return *this << String(value); }

    String toString() const;
    operator String() const { return toString(); }

private:
    struct Arg {
        bool isText;
        bool isUnsigned;
        long long number;
        String text;
    };
    String format;
    std::vector<Arg> args;
};

} // namespace zu
