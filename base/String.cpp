#include "base/String.h"

#include <wx/strconv.h>

namespace zu {

String::String(const char* utf8) : wxString(utf8 ? fromUTF8(utf8, std::char_traits<char>::length(utf8)) : wxString()) {}

String::String(const std::string& utf8) : wxString(fromUTF8(utf8.data(), utf8.size())) {}

std::string String::toUTF8() const
{
    std::string out;
    out.reserve(length());
    for (wxString::const_iterator it = begin(); it != end(); ++it) {
        unsigned c = static_cast<unsigned>((*it).GetValue());
        if (c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) c = 0xFFFD;
        if (c < 0x80) {
            out.push_back(static_cast<char>(c));
        } else if (c < 0x800) {
            out.push_back(static_cast<char>(0xC0 | (c >> 6)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else if (c < 0x10000) {
            out.push_back(static_cast<char>(0xE0 | (c >> 12)));
            out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else {
            out.push_back(static_cast<char>(0xF0 | (c >> 18)));
            out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        }
    }
    return out;
}

std::string String::toLatin1() const
{
    std::string out;
    out.reserve(length());
    for (wxString::const_iterator it = begin(); it != end(); ++it) {
        unsigned c = static_cast<unsigned>((*it).GetValue());
        out.push_back(c <= 0xFF ? static_cast<char>(c) : '?');
    }
    return out;
}

// A hand-written decoder: it must reject every malformed form (overlong
// encodings, surrogates, values above U+10FFFF, truncated sequences) and run
// in linear time on untrusted descriptor text, embedded NULs included.
bool String::tryFromUTF8(const char* data, std::size_t length, String& out)
{
    // Decoded in place: a descriptor's text is the largest string we make,
    // and each copy of it costs four bytes per character.
    String wide;
    wide.reserve(length);
    const auto* p = reinterpret_cast<const unsigned char*>(data);
    std::size_t i = 0;
    while (i < length) {
        unsigned c = p[i];
        int extra;
        unsigned min;
        if (c < 0x80) {
            wide.append(1, static_cast<wchar_t>(c));
            ++i;
            continue;
        } else if ((c & 0xE0) == 0xC0) {
            extra = 1; min = 0x80; c &= 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            extra = 2; min = 0x800; c &= 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            extra = 3; min = 0x10000; c &= 0x07;
        } else {
            return false;
        }
        if (length - i <= static_cast<std::size_t>(extra)) return false;
        for (int k = 1; k <= extra; ++k) {
            unsigned cc = p[i + k];
            if ((cc & 0xC0) != 0x80) return false;
            c = (c << 6) | (cc & 0x3F);
        }
        if (c < min || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) return false;
        wide.append(1, static_cast<wchar_t>(c));
        i += static_cast<std::size_t>(extra) + 1;
    }
    out.swap(wide);
    return true;
}

String String::fromUTF8(const char* data, std::size_t length)
{
    String out;
    if (!tryFromUTF8(data, length, out)) out.clear();
    return out;
}

String String::fromLatin1(const char* data, std::size_t length)
{
    std::wstring wide;
    wide.resize(length);
    for (std::size_t i = 0; i < length; ++i) wide[i] = static_cast<wchar_t>(static_cast<unsigned char>(data[i]));
    return String(wxString(wide));
}

String String::toLowerASCII() const
{
    std::wstring wide = ToStdWstring();
    for (auto& c : wide) {
        if (c >= L'A' && c <= L'Z') c = static_cast<wchar_t>(c - L'A' + L'a');
    }
    return String(wxString(wide));
}

bool String::equalsIgnoreCaseASCII(const String& other) const
{
    if (length() != other.length()) return false;
    auto a = begin();
    auto b = other.begin();
    for (; a != end(); ++a, ++b) {
        wchar_t x = static_cast<wchar_t>((*a).GetValue());
        wchar_t y = static_cast<wchar_t>((*b).GetValue());
        if (x >= L'A' && x <= L'Z') x = static_cast<wchar_t>(x - L'A' + L'a');
        if (y >= L'A' && y <= L'Z') y = static_cast<wchar_t>(y - L'A' + L'a');
        if (x != y) return false;
    }
    return true;
}

String operator+(const String& a, const String& b)
{
    String r(a);
    r.append(b);
    return r;
}
String operator+(const String& a, const char* b) { return a + String(b); }
String operator+(const char* a, const String& b) { return String(a) + b; }
String operator+(const String& a, const wchar_t* b)
{
    String r(a);
    r.append(b);
    return r;
}
String operator+(const wchar_t* a, const String& b) { return String(wxString(a)) + b; }
String operator+(const String& a, wchar_t c)
{
    String r(a);
    r.append(1, c);
    return r;
}

String toString(int value) { return String(std::to_string(value)); }
String toString(unsigned value) { return String(std::to_string(value)); }
String toString(long value) { return String(std::to_string(value)); }
String toString(long long value) { return String(std::to_string(value)); }
String toString(unsigned long value) { return String(std::to_string(value)); }
String toString(unsigned long long value) { return String(std::to_string(value)); }

String toHexString(unsigned value)
{
    static const char digits[] = "0123456789abcdef";
    char buf[9];
    int n = 0;
    do {
        buf[8 - n] = digits[value & 0xF];
        value >>= 4;
        ++n;
    } while (value != 0);
    return String(std::string(buf + 9 - n, buf + 9));
}

String toString(bool value) { return String(value ? "true" : "false"); }

} // namespace zu
