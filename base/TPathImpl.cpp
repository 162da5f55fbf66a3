// Path normalisation for the two syntaxes that descriptors use. The
// constructor makes one pass over the text: separators are unified only when
// the traits say the text needs it, the root is taken off, and each name is
// appended to the normalised text, ".." undoing the previous name by cutting
// the text back. The cost is linear in the length of the path.
#include "base/TPathImpl.h"

#include <string>
#include <string_view>
#include <type_traits>

namespace zu {

static_assert(std::is_same<wxStringCharType, wchar_t>::value, "paths are scanned as wide characters");

namespace {

std::wstring_view chars(const String& s) { return std::wstring_view(s.wx_str(), s.length()); }

String fromWide(std::wstring_view w) { return w.empty() ? String() : String(wxString(w.data(), w.size())); }

bool isASCIILetter(wchar_t c) { return (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z'); }

wchar_t toUpperASCII(wchar_t c) { return c >= L'a' && c <= L'z' ? static_cast<wchar_t>(c - L'a' + L'A') : c; }

// Every separator becomes the traits' own; a run of separators becomes one,
// except that a run opening the text keeps up to `leading` of them.
template <class Traits>
String collapseSeparators(const String& path, std::size_t leading)
{
    std::wstring_view in = chars(path);
    std::wstring out;
    out.reserve(in.size());
    std::size_t i = 0;
    for (; i < in.size() && Traits::isSeparator(in[i]); ++i) {
        if (i < leading) out.push_back(Traits::getSeparator());
    }
    bool afterSeparator = i > 0;
    for (; i < in.size(); ++i) {
        const bool separator = Traits::isSeparator(in[i]);
        if (!separator)
            out.push_back(in[i]);
        else if (!afterSeparator)
            out.push_back(Traits::getSeparator());
        afterSeparator = separator;
    }
    return fromWide(out);
}

// Normalised names are joined with a separator after each; the last one goes.
template <class Traits>
String dropTrailingSeparator(const String& path)
{
    std::wstring_view p = chars(path);
    const std::size_t rootLength = static_cast<std::size_t>(Traits::getRootLength(path));
    if (p.size() > rootLength && Traits::isSeparator(p.back())) return fromWide(p.substr(0, p.size() - 1));
    return path;
}

// A name is checked by the traits; the error names the whole path.
template <class Traits>
String normalizeName(const String& path, std::wstring_view name)
{
    const String text = fromWide(name);
    try {
        return Traits::normalizeComponent(text);
    } catch (const CBadPathError&) {
        throw CBadPathError(path, "the name '" + text + "' contains a character that is not allowed");
    }
}

// "X:" opening the text.
bool hasDrive(std::wstring_view p) { return p.size() >= 2 && isASCIILetter(p[0]) && p[1] == L':'; }

bool opensUNC(std::wstring_view p)
{
    return p.size() >= 2 && CWindowsPathTraits::isSeparator(p[0]) && CWindowsPathTraits::isSeparator(p[1]);
}

bool isInvalidInWindowsName(wchar_t c)
{
    if (c < 0x20) return true;
    switch (c) {
    case L'<': case L'>': case L':': case L'"': case L'|': case L'?': case L'*':
        return true;
    default:
        return false;
    }
}

bool isValidWindowsName(std::wstring_view name)
{
    for (wchar_t c : name) {
        if (isInvalidInWindowsName(c)) return false;
    }
    return true;
}

std::size_t findWindowsSeparator(std::wstring_view p, std::size_t from)
{
    while (from < p.size() && !CWindowsPathTraits::isSeparator(p[from])) ++from;
    return from;
}

} // namespace

// ---- Unix ----

bool CUnixPathTraits::isAbsolute(const String& path) { return !path.empty() && chars(path)[0] == L'/'; }

int CUnixPathTraits::getRootLength(const String& path) { return isAbsolute(path) ? 1 : 0; }

String CUnixPathTraits::normalizeRoot(const String& root) { return root.empty() ? String() : String("/"); }

String CUnixPathTraits::normalizeSeparators(const String& path) { return collapseSeparators<CUnixPathTraits>(path, 1); }

String CUnixPathTraits::normalizeComponent(const String& component)
{
    if (chars(component).find(L'\0') != std::wstring_view::npos)
        throw CBadPathError(component, "a name contains a NUL character");
    return component;
}

String CUnixPathTraits::finalizeNormalizedPath(const String& path) { return dropTrailingSeparator<CUnixPathTraits>(path); }

bool CUnixPathTraits::pathNeedsToBeNormalizedToBeValid(const String& path)
{
    return chars(path).find(L"//") != std::wstring_view::npos;
}

// ---- Windows ----

bool CWindowsPathTraits::isAbsolute(const String& path)
{
    std::wstring_view p = chars(path);
    return (hasDrive(p) && p.size() >= 3 && isSeparator(p[2])) || opensUNC(p);
}

int CWindowsPathTraits::getRootLength(const String& path)
{
    std::wstring_view p = chars(path);
    if (hasDrive(p)) return p.size() >= 3 && isSeparator(p[2]) ? 3 : 2;
    if (!opensUNC(p)) return !p.empty() && isSeparator(p[0]) ? 1 : 0;
    const std::size_t serverEnd = findWindowsSeparator(p, 2);
    const std::size_t shareEnd = findWindowsSeparator(p, serverEnd + 1);
    if (serverEnd == 2 || serverEnd >= p.size() || shareEnd == serverEnd + 1)
        throw CBadPathError(path, "a UNC path needs a server and a share name");
    return static_cast<int>(shareEnd < p.size() ? shareEnd + 1 : shareEnd);
}

String CWindowsPathTraits::normalizeRoot(const String& root)
{
    std::wstring_view p = chars(root);
    if (p.empty()) return String();
    if (hasDrive(p)) return fromWide(std::wstring{toUpperASCII(p[0]), L':'} + (p.size() > 2 ? L"\\" : L""));
    if (!opensUNC(p)) return String("\\");
    const std::size_t serverEnd = findWindowsSeparator(p, 2);
    const std::size_t shareEnd = findWindowsSeparator(p, serverEnd + 1);
    const std::wstring_view server = p.substr(2, serverEnd - 2);
    const std::wstring_view share = p.substr(serverEnd + 1, shareEnd - serverEnd - 1);
    if (!isValidWindowsName(server) || !isValidWindowsName(share))
        throw CBadPathError(root, "the server or share name contains a character that is not allowed");
    std::wstring out(L"\\\\");
    out.append(server).append(1, L'\\').append(share).append(1, L'\\');
    return fromWide(out);
}

String CWindowsPathTraits::normalizeSeparators(const String& path)
{
    return collapseSeparators<CWindowsPathTraits>(path, 2);
}

String CWindowsPathTraits::normalizeComponent(const String& component)
{
    std::wstring_view p = chars(component);
    if (!isValidWindowsName(p)) throw CBadPathError(component, "a name contains a character that is not allowed");
    std::size_t end = p.size();
    while (end > 0 && (p[end - 1] == L'.' || p[end - 1] == L' ')) --end;
    return end == p.size() ? component : fromWide(p.substr(0, end));
}

String CWindowsPathTraits::finalizeNormalizedPath(const String& path)
{
    return dropTrailingSeparator<CWindowsPathTraits>(path);
}

bool CWindowsPathTraits::pathNeedsToBeNormalizedToBeValid(const String& path)
{
    std::wstring_view p = chars(path);
    for (std::size_t i = 0; i < p.size(); ++i) {
        const wchar_t c = p[i];
        if (c == L'/') return true;
        // Two backslashes are allowed only where they open a UNC root.
        if (c == L'\\' && i >= 2 && p[i - 1] == L'\\') return true;
        if ((c == L'.' || c == L' ') && (i + 1 == p.size() || isSeparator(p[i + 1]))) return true;
    }
    return false;
}

// ---- TPathImpl ----

template <class Traits>
TPathImpl<Traits>::TPathImpl(const String& path)
{
    const String input = Traits::pathNeedsToBeNormalizedToBeValid(path) ? Traits::normalizeSeparators(path) : path;
    std::wstring_view in = chars(input);
    const std::size_t rootLength = static_cast<std::size_t>(Traits::getRootLength(input));
    root = Traits::normalizeRoot(fromWide(in.substr(0, rootLength)));
    // ".." stops at a root that ends in a separator; a relative path, or one
    // relative to a drive's current folder ("C:..\x"), keeps it.
    const bool rooted = !root.empty() && Traits::isSeparator(chars(root).back());
    std::wstring out(chars(root));
    for (std::size_t pos = rootLength; pos < in.size();) {
        std::size_t end = pos;
        while (end < in.size() && !Traits::isSeparator(in[end])) ++end;
        const std::wstring_view name = in.substr(pos, end - pos);
        pos = end + 1;
        if (name.empty() || name == L".") continue;
        if (name == L".." && !components.empty() && components.back() != "..") {
            out.resize(out.size() - components.back().length() - 1);
            components.pop_back();
            continue;
        }
        if (name == L".." && rooted) continue;
        const String component = name == L".." ? String("..") : normalizeName<Traits>(path, name);
        // A Windows name of only dots and spaces is nothing once trimmed.
        if (component.empty()) continue;
        out.append(chars(component)).append(1, Traits::getSeparator());
        components.push_back(component);
    }
    text = Traits::finalizeNormalizedPath(fromWide(out));
}

template <class Traits>
String TPathImpl<Traits>::toString() const
{
    return text;
}

template class TPathImpl<CUnixPathTraits>;
template class TPathImpl<CWindowsPathTraits>;

} // namespace zu
