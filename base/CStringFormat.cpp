#include "base/CStringFormat.h"

#include <cstdint>

#if !wxUSE_UNICODE_WCHAR
#error "CStringFormat reads zu::String as wide characters"
#endif

namespace zu {

namespace {

enum class Conversion { none, percent, signedDecimal, unsignedDecimal, hex, text };

// Recognises the conversion at `p` (just after a '%') and returns its length
// in characters, or 0 when it is not one of the supported forms.
std::size_t matchConversion(const wchar_t* p, const wchar_t* end, Conversion& kind)
{
    struct Form {
        const wchar_t* text;
        Conversion kind;
    };
    static const Form forms[] = {
        {L"%", Conversion::percent},         {L"d", Conversion::signedDecimal},
        {L"i", Conversion::signedDecimal},   {L"ld", Conversion::signedDecimal},
        {L"lld", Conversion::signedDecimal}, {L"u", Conversion::unsignedDecimal},
        {L"lu", Conversion::unsignedDecimal}, {L"llu", Conversion::unsignedDecimal},
        {L"x", Conversion::hex},             {L"lx", Conversion::hex},
        {L"llx", Conversion::hex},           {L"s", Conversion::text},
    };
    for (const Form& form : forms) {
        std::size_t n = std::char_traits<wchar_t>::length(form.text);
        if (static_cast<std::size_t>(end - p) >= n && std::char_traits<wchar_t>::compare(p, form.text, n) == 0) {
            kind = form.kind;
            return n;
        }
    }
    kind = Conversion::none;
    return 0;
}

void appendUnsigned(std::wstring& out, std::uint64_t value, unsigned base)
{
    wchar_t digits[20];
    int n = 0;
    do {
        unsigned d = static_cast<unsigned>(value % base);
        digits[n++] = static_cast<wchar_t>(d < 10 ? L'0' + d : L'a' + d - 10);
        value /= base;
    } while (value != 0);
    while (n > 0) out.push_back(digits[--n]);
}

} // namespace

CStringFormat& CStringFormat::operator<<(long long value)
{
    args.push_back(Arg{false, false, value, String()});
    return *this;
}

CStringFormat& CStringFormat::operator<<(unsigned long long value)
{
    args.push_back(Arg{false, true, static_cast<long long>(value), String()});
    return *this;
}

CStringFormat& CStringFormat::operator<<(const String& value)
{
    args.push_back(Arg{true, false, 0, value});
    return *this;
}

String CStringFormat::toString() const
{
    std::wstring out;
    out.reserve(format.length() + 16 * args.size());
    const wchar_t* p = format.wx_str();
    const wchar_t* end = p + format.length();
    std::size_t next = 0;
    while (p != end) {
        Conversion kind = Conversion::none;
        std::size_t n = *p == L'%' ? matchConversion(p + 1, end, kind) : 0;
        if (kind == Conversion::percent) {
            out.push_back(L'%');
        } else if (kind == Conversion::none || next == args.size()) {
            // Plain text, an unsupported form, or a conversion without argument: kept as written.
            out.append(p, n + 1);
        } else {
            const Arg& arg = args[next++];
            std::uint64_t bits = static_cast<std::uint64_t>(arg.number);
            if (arg.isText) {
                out.append(arg.text.wx_str(), arg.text.length());
            } else if (kind == Conversion::hex) {
                appendUnsigned(out, bits, 16);
            } else if (kind == Conversion::unsignedDecimal || arg.isUnsigned || arg.number >= 0) {
                // %u of a negative value shows its 64-bit pattern, as printf would.
                appendUnsigned(out, bits, 10);
            } else {
                out.push_back(L'-');
                appendUnsigned(out, ~bits + 1, 10);
            }
        }
        p += n + 1;
    }
    return String(wxString(out));
}

} // namespace zu
