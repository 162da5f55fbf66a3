// Parsing and formatting helpers for descriptor values.
//
// Every parser throws CInvalidArgError (naming the function and quoting the
// text) for text it does not accept, and never reads past the text.
#pragma once

#include "base/String.h"
#include "base/TBuffer.h"

namespace zu {

// Accepts "true"/"false", "yes"/"no", "on"/"off", "1"/"0", in any letter case.
bool parseBool(const String& text);

// Decimal 64-bit integer with an optional leading "+" or "-". Overflow and
// any character that is not a digit are errors.
// lax = true also accepts white space before and after the number; with
// lax = false the text must be the number and nothing else.
long long parseInt64(const String& text, bool lax);

// Up to 16 hexadecimal digits (either letter case), no prefix, no sign; the
// bits of the value are returned, so "ffffffffffffffff" is -1.
// lax = true also accepts white space around the digits and an optional
// "0x"/"0X" prefix; with lax = false only the digits are accepted.
long long parseHexInt64(const String& text, bool lax);

// Lower-case hexadecimal text of the bytes, two digits each.
String hexEncode(const TBuffer<unsigned char>& data);
String hexEncode(const unsigned char* data, long long bytes);
// The bytes of hexadecimal text (either letter case); an odd length or a
// character that is not a hex digit is an error.
TBuffer<unsigned char> hexDecode(const String& text);

} // namespace zu
