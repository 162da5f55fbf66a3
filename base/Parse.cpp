#include "base/Parse.h"

#include "base/CError.h"

#include <cstdint>
#include <string>

#if !wxUSE_UNICODE_WCHAR
#error "The parsers read zu::String as wide characters"
#endif

namespace zu {

namespace {

// Quoted text for an error message. Descriptor values come from files and
// may be huge: a megabyte value must not become a megabyte message.
String quoted(const String& text)
{
    const std::size_t maxShown = 64;
    if (text.length() <= maxShown) return "'" + text + "'";
    return "'" + String(text.Left(maxShown)) + "...'";
}

[[noreturn]] void fail(const char* where, const String& text, const char* problem)
{
    throw CInvalidArgError(where, quoted(text) + " " + problem);
}

bool isSpace(wchar_t c) { return c == L' ' || c == L'\t' || c == L'\r' || c == L'\n' || c == L'\v' || c == L'\f'; }

int hexDigitValue(wchar_t c)
{
    if (c >= L'0' && c <= L'9') return c - L'0';
    if (c >= L'a' && c <= L'f') return c - L'a' + 10;
    if (c >= L'A' && c <= L'F') return c - L'A' + 10;
    return -1;
}

// The characters of a string as a half-open range, without copying.
struct Range {
    const wchar_t* begin;
    const wchar_t* end;

    explicit Range(const String& text) : begin(text.wx_str()), end(text.wx_str() + text.length()) {}
    std::size_t size() const { return static_cast<std::size_t>(end - begin); }
    void trimSpace()
    {
        while (begin != end && isSpace(*begin)) ++begin;
        while (begin != end && isSpace(end[-1])) --end;
    }
};

} // namespace

bool parseBool(const String& text)
{
    // The longest accepted word has five letters; anything longer is no boolean,
    // and is refused without folding its case.
    if (text.length() <= 5) {
        String lower = text.toLowerASCII();
        if (lower == L"true" || lower == L"yes" || lower == L"on" || lower == L"1") return true;
        if (lower == L"false" || lower == L"no" || lower == L"off" || lower == L"0") return false;
    }
    fail("zu::parseBool", text, "is not a boolean value");
}

long long parseInt64(const String& text, bool lax)
{
    static const char* const where = "zu::parseInt64";
    Range r(text);
    if (lax) r.trimSpace();
    bool negative = false;
    if (r.begin != r.end && (*r.begin == L'+' || *r.begin == L'-')) {
        negative = *r.begin == L'-';
        ++r.begin;
    }
    if (r.begin == r.end) fail(where, text, "is not a decimal number");
    // Accumulate the magnitude unsigned: the most negative value has no
    // positive counterpart.
    const std::uint64_t limit = negative ? std::uint64_t(1) << 63 : (std::uint64_t(1) << 63) - 1;
    std::uint64_t value = 0;
    for (const wchar_t* p = r.begin; p != r.end; ++p) {
        if (*p < L'0' || *p > L'9') fail(where, text, "is not a decimal number");
        std::uint64_t digit = static_cast<std::uint64_t>(*p - L'0');
        if (value > (limit - digit) / 10) fail(where, text, "is outside the range of a 64-bit integer");
        value = value * 10 + digit;
    }
    if (!negative) return static_cast<long long>(value);
    return value == limit ? INT64_MIN : -static_cast<long long>(value);
}

long long parseHexInt64(const String& text, bool lax)
{
    static const char* const where = "zu::parseHexInt64";
    Range r(text);
    if (lax) {
        r.trimSpace();
        if (r.size() >= 2 && r.begin[0] == L'0' && (r.begin[1] == L'x' || r.begin[1] == L'X')) r.begin += 2;
    }
    if (r.begin == r.end) fail(where, text, "is not a hexadecimal number");
    std::uint64_t value = 0;
    for (const wchar_t* p = r.begin; p != r.end; ++p) {
        int digit = hexDigitValue(*p);
        if (digit < 0) fail(where, text, "is not a hexadecimal number");
        value = (value << 4) | static_cast<std::uint64_t>(digit);
    }
    // Checked after the digits so that a long non-hex text gets the more telling message.
    if (r.size() > 16) fail(where, text, "has more than 16 hexadecimal digits");
    return static_cast<long long>(value);
}

String hexEncode(const TBuffer<unsigned char>& data) { return hexEncode(data.getData(), data.getUsed()); }

String hexEncode(const unsigned char* data, long long bytes)
{
    if (bytes < 0 || (bytes > 0 && !data))
        throw CInvalidArgError("zu::hexEncode", "Invalid data or byte count", CProps().set("bytes", bytes));
    static const wchar_t digits[] = L"0123456789abcdef";
    std::wstring out(static_cast<std::size_t>(bytes) * 2, L'0');
    for (long long i = 0; i < bytes; ++i) {
        out[static_cast<std::size_t>(2 * i)] = digits[data[i] >> 4];
        out[static_cast<std::size_t>(2 * i + 1)] = digits[data[i] & 0xF];
    }
    return String(wxString(out));
}

TBuffer<unsigned char> hexDecode(const String& text)
{
    static const char* const where = "zu::hexDecode";
    Range r(text);
    if (r.size() % 2 != 0) fail(where, text, "has an odd number of hexadecimal digits");
    TBuffer<unsigned char> out(static_cast<long long>(r.size() / 2));
    unsigned char* target = out.getData();
    for (const wchar_t* p = r.begin; p != r.end; p += 2) {
        int high = hexDigitValue(p[0]);
        int low = hexDigitValue(p[1]);
        if (high < 0 || low < 0) fail(where, text, "is not hexadecimal text");
        *target++ = static_cast<unsigned char>((high << 4) | low);
    }
    return out;
}

} // namespace zu
