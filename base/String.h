// zu::String: the libraries' text type, a wide-character string over
// wxWidgets' string class, with explicit conversions to and from byte
// encodings. Narrow literals are taken as UTF-8, never as the C locale's
// encoding, so that behaviour does not depend on the environment.
#pragma once

#include <wx/string.h>

#include <cstddef>
#include <string>

namespace zu {

class String : public wxString {
public:
    using wxString::wxString;
    String() = default;
    String(const wxString& s) : wxString(s) {}
    String(wxString&& s) : wxString(std::move(s)) {}
    String(const char* utf8);
    String(const std::string& utf8);

    // UTF-8 bytes of the text (no terminator counted).
    std::string toUTF8() const;
    // ISO-8859-1 bytes; characters above U+00FF become '?'.
    std::string toLatin1() const;

    // Decodes UTF-8. Malformed input (invalid sequences, overlong forms,
    // surrogates) yields the empty string: callers that must tell the two
    // apart use tryFromUTF8.
    static String fromUTF8(const char* data, std::size_t length);
    static bool tryFromUTF8(const char* data, std::size_t length, String& out);
    // Each byte becomes the character of the same code (never fails).
    static String fromLatin1(const char* data, std::size_t length);

    // ASCII-only case folding, as used for descriptor keys.
    String toLowerASCII() const;
    bool equalsIgnoreCaseASCII(const String& other) const;
    bool startsWith(const String& prefix) const { return StartsWith(prefix); }
};

// Concatenation keeps the zu type (wxString's operators return wxString).
String operator+(const String& a, const String& b);
String operator+(const String& a, const char* b);
String operator+(const char* a, const String& b);
String operator+(const String& a, const wchar_t* b);
String operator+(const wchar_t* a, const String& b);
String operator+(const String& a, wchar_t c);
// Numbers are never appended as characters by accident: use toString.
String operator+(const String&, int) = delete;
String operator+(const String&, unsigned) = delete;
String operator+(const String&, long) = delete;
String operator+(const String&, long long) = delete;
String operator+(const String&, unsigned long) = delete;
String operator+(const String&, unsigned long long) = delete;

String toString(int value);
String toString(unsigned value);
String toString(long value);
String toString(long long value);
String toString(unsigned long value);
String toString(unsigned long long value);
// Lower-case hexadecimal without prefix or leading zeros ("%x").
String toHexString(unsigned value);
String toString(bool value);

} // namespace zu
