// URIs are kept as their five RFC 3986 components with the path decoded, so
// that names compare and join as plain text and percent-encoding is a matter
// of writing only. Query and fragment are kept as written.
#include "base/CURI.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <tuple>

namespace zu {

namespace {

std::wstring_view chars(const String& s) { return std::wstring_view(s.wx_str(), s.length()); }

String fromWide(std::wstring_view w) { return w.empty() ? String() : String(wxString(w.data(), w.size())); }

bool isASCIILetter(wchar_t c) { return (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z'); }

bool isASCIIDigit(wchar_t c) { return c >= L'0' && c <= L'9'; }

bool isSchemeChar(wchar_t c) { return isASCIILetter(c) || isASCIIDigit(c) || c == L'+' || c == L'-' || c == L'.'; }

// Characters written as they are in an encoded path: unreserved, sub-delims,
// ":", "@" and "/".
bool isPlainPathChar(unsigned char c)
{
    if (isASCIILetter(c) || isASCIIDigit(c)) return true;
    switch (c) {
    case '-': case '.': case '_': case '~':
    case '!': case '$': case '&': case '\'': case '(': case ')': case '*': case '+': case ',': case ';': case '=':
    case ':': case '@': case '/':
        return true;
    default:
        return false;
    }
}

int hexValue(wchar_t c)
{
    if (isASCIIDigit(c)) return c - L'0';
    if (c >= L'a' && c <= L'f') return c - L'a' + 10;
    if (c >= L'A' && c <= L'F') return c - L'A' + 10;
    return -1;
}

// Length of the scheme that opens the text, 0 when there is none (a
// relative reference).
std::size_t schemeLength(std::wstring_view text)
{
    if (text.empty() || !isASCIILetter(text[0])) return 0;
    std::size_t i = 1;
    while (i < text.size() && isSchemeChar(text[i])) ++i;
    return i < text.size() && text[i] == L':' ? i : 0;
}

CInvalidArgError badEscape(const String& text, std::size_t position, const char* problem)
{
    return CInvalidArgError("zu::CURI", String(problem) + " at position " + toString(static_cast<unsigned long>(position)),
                            CProps().set("uri", text).set("position", static_cast<unsigned long>(position)));
}

// Decodes %XX escapes; each run of escapes is one UTF-8 sequence of bytes.
// `offset` is the position of `encoded` in `text`, for the error.
String decodePath(std::wstring_view encoded, const String& text, std::size_t offset)
{
    if (encoded.find(L'%') == std::wstring_view::npos) return fromWide(encoded);
    std::wstring out;
    out.reserve(encoded.size());
    std::string bytes;
    for (std::size_t i = 0; i < encoded.size();) {
        if (encoded[i] != L'%') {
            out.push_back(encoded[i++]);
            continue;
        }
        const std::size_t runStart = i;
        bytes.clear();
        while (i < encoded.size() && encoded[i] == L'%') {
            const bool complete = i + 2 < encoded.size();
            const int high = complete ? hexValue(encoded[i + 1]) : -1;
            const int low = complete ? hexValue(encoded[i + 2]) : -1;
            if (high < 0 || low < 0) throw badEscape(text, offset + i, "malformed percent escape");
            bytes.push_back(static_cast<char>(high * 16 + low));
            i += 3;
        }
        String decoded;
        if (!String::tryFromUTF8(bytes.data(), bytes.size(), decoded))
            throw badEscape(text, offset + runStart, "percent escapes that are not UTF-8");
        out.append(chars(decoded));
    }
    return fromWide(out);
}

// The encoded form of a decoded path. `escapeFirstColon`: a relative
// reference whose first segment holds ":" would read back as a scheme.
// `escapeDoubleSlash`: without an authority a path opening with "//" would
// read back as one.
String encodePath(const String& path, bool escapeFirstColon, bool escapeDoubleSlash)
{
    static const char hex[] = "0123456789ABCDEF";
    const std::string utf8 = path.toUTF8();
    std::string out;
    out.reserve(utf8.size());
    bool firstSegment = true;
    for (std::size_t i = 0; i < utf8.size(); ++i) {
        const auto c = static_cast<unsigned char>(utf8[i]);
        const bool escapeThis = (c == ':' && firstSegment && escapeFirstColon) ||
                                (c == '/' && i == 1 && escapeDoubleSlash && utf8[0] == '/');
        if (c == '/') firstSegment = false;
        if (isPlainPathChar(c) && !escapeThis) {
            out.push_back(static_cast<char>(c));
        } else {
            out.push_back('%');
            out.push_back(hex[c >> 4]);
            out.push_back(hex[c & 0xF]);
        }
    }
    return String(out);
}

// "." dropped, ".." resolved, runs of "/" and a trailing "/" removed. A
// rooted path never climbs above its root; a relative one keeps leading "..".
String normalizePath(const String& path)
{
    std::wstring_view in = chars(path);
    const bool rooted = !in.empty() && in[0] == L'/';
    std::wstring out(rooted ? L"/" : L"");
    std::size_t names = 0; // names in `out` that a ".." may undo
    for (std::size_t pos = 0; pos < in.size();) {
        std::size_t end = in.find(L'/', pos);
        if (end == std::wstring_view::npos) end = in.size();
        const std::wstring_view name = in.substr(pos, end - pos);
        pos = end + 1;
        if (name.empty() || name == L".") continue;
        if (name == L".." && names > 0) {
            const std::size_t slash = out.rfind(L'/');
            out.resize(slash == std::wstring::npos ? 0 : std::max<std::size_t>(slash, rooted ? 1 : 0));
            --names;
            continue;
        }
        if (name == L".." && rooted) continue;
        if (!out.empty() && out.back() != L'/') out.push_back(L'/');
        out.append(name);
        if (name != L"..") ++names;
    }
    return fromWide(out);
}

// The host part (after any user information) in lower case.
String normalizeAuthority(const String& authority)
{
    std::wstring out(chars(authority));
    const std::size_t at = out.rfind(L'@');
    for (std::size_t i = at == std::wstring::npos ? 0 : at + 1; i < out.size(); ++i) {
        if (out[i] >= L'A' && out[i] <= L'Z') out[i] = static_cast<wchar_t>(out[i] - L'A' + L'a');
    }
    return fromWide(out);
}

// Path text placed below a directory path. Below an authority the path must
// be rooted.
String joinPath(const String& base, std::wstring_view relative, bool baseHasAuthority)
{
    if (relative.empty()) return base;
    std::wstring out(chars(base));
    if (out.empty() ? baseHasAuthority : out.back() != L'/') out.push_back(L'/');
    out.append(relative);
    return fromWide(out);
}

// Where the last name of a path ends (trailing "/" ignored) and starts.
std::pair<std::size_t, std::size_t> lastNameRange(std::wstring_view p)
{
    std::size_t end = p.size();
    while (end > 0 && p[end - 1] == L'/') --end;
    const std::size_t slash = end == 0 ? std::wstring_view::npos : p.rfind(L'/', end - 1);
    return {slash == std::wstring_view::npos ? 0 : slash + 1, end};
}

// Names of a path joined with "/", after `prefix`.
String joinNames(std::wstring prefix, const std::vector<String>& names)
{
    for (const String& name : names) {
        if (!prefix.empty() && prefix.back() != L'/') prefix.push_back(L'/');
        prefix.append(chars(name));
    }
    return fromWide(prefix);
}

const String& fileScheme()
{
    static const String scheme("file");
    return scheme;
}

} // namespace

CURI::CURI(const String& text)
{
    std::wstring_view in = chars(text);
    std::size_t pos = schemeLength(in);
    if (pos > 0) scheme = fromWide(in.substr(0, pos++));
    std::size_t hierEnd = in.find_first_of(L"?#", pos);
    if (hierEnd == std::wstring_view::npos) hierEnd = in.size();
    std::wstring hier(in.substr(pos, hierEnd - pos));
    // A reference without a scheme may be a name written on Windows
    // ("\\server\share\x"): its backslashes are taken as separators.
    if (scheme.empty()) std::replace(hier.begin(), hier.end(), L'\\', L'/');
    std::wstring_view rest = hier;
    if (rest.size() >= 2 && rest[0] == L'/' && rest[1] == L'/') {
        const std::size_t authorityEnd = std::min(rest.find(L'/', 2), rest.size());
        authority = fromWide(rest.substr(2, authorityEnd - 2));
        hasAuthority = true;
        pos += authorityEnd;
        rest.remove_prefix(authorityEnd);
    }
    path = decodePath(rest, text, pos);
    if (hierEnd < in.size() && in[hierEnd] == L'?') {
        const std::size_t queryEnd = std::min(in.find(L'#', hierEnd), in.size());
        query = fromWide(in.substr(hierEnd + 1, queryEnd - hierEnd - 1));
        hierEnd = queryEnd;
    }
    if (hierEnd < in.size()) fragment = fromWide(in.substr(hierEnd + 1));
}

CURI::CURI(const CUnixPath& unixPath, bool mustBeAbsolute)
{
    if (unixPath.isAbsolute()) {
        scheme = fileScheme();
        hasAuthority = true;
    } else if (mustBeAbsolute) {
        throw CBadPathError(unixPath.toString(), "a file URI needs an absolute path");
    }
    path = joinNames(unixPath.isAbsolute() ? L"/" : L"", unixPath.getComponents());
}

// A drive path is rooted at "/C:/"; a UNC root gives the authority and the
// first name. A path relative to a drive's current folder ("C:x") keeps its
// "C:" as a first name, since a URI cannot express it.
CURI::CURI(const CWindowsPath& windowsPath, bool mustBeAbsolute)
{
    std::wstring_view root = chars(windowsPath.getRoot());
    std::wstring prefix;
    if (windowsPath.isAbsolute()) {
        scheme = fileScheme();
        hasAuthority = true;
        if (root[1] == L':') {
            prefix = std::wstring{L'/', root[0], L':', L'/'};
        } else {
            const std::size_t serverEnd = root.find(L'\\', 2);
            authority = fromWide(root.substr(2, serverEnd - 2));
            prefix = std::wstring(L"/").append(root.substr(serverEnd + 1, root.size() - serverEnd - 2));
        }
    } else if (mustBeAbsolute) {
        throw CBadPathError(windowsPath.toString(), "a file URI needs an absolute path");
    } else if (!root.empty()) {
        prefix = root[0] == L'\\' ? std::wstring(L"/") : std::wstring(root);
    }
    path = joinNames(prefix, windowsPath.getComponents());
}

CURI::CURI(const CURI& parent, const String& name)
{
    if (name.empty() || name == "." || name == ".." || chars(name).find(L'/') != std::wstring_view::npos)
        throw CInvalidArgError("zu::CURI", "a child name must be one name, not empty, \".\", \"..\" or a path",
                               CProps().set("uri", parent.toString(true)).set("name", name));
    *this = parent << name;
}

bool CURI::isEmpty() const
{
    return scheme.empty() && !hasAuthority && path.empty() && query.empty() && fragment.empty();
}

bool CURI::isAbsolute() const { return !scheme.empty() && (hasAuthority || path.startsWith("/")); }

CURI CURI::withScheme(const String& newScheme) const
{
    CURI uri(*this);
    uri.scheme = newScheme;
    return uri;
}

String CURI::getName() const
{
    const auto range = lastNameRange(chars(path));
    return fromWide(chars(path).substr(range.first, range.second - range.first));
}

String CURI::getTitle() const
{
    const String name = getName();
    const std::size_t dot = chars(name).rfind(L'.');
    return dot == std::wstring_view::npos || dot == 0 ? name : fromWide(chars(name).substr(0, dot));
}

String CURI::getExtension() const
{
    const String name = getName();
    const std::size_t dot = chars(name).rfind(L'.');
    return dot == std::wstring_view::npos || dot == 0 ? String() : fromWide(chars(name).substr(dot + 1));
}

CURI CURI::getParent() const
{
    CURI parent(*this);
    parent.query.clear();
    parent.fragment.clear();
    std::wstring_view p = chars(path);
    std::size_t end = lastNameRange(p).first;
    if (end == 0) {
        // A single relative name has the empty reference as parent; a root
        // is its own.
        if (p.empty() || p[0] != L'/') parent.path.clear();
        return parent;
    }
    while (end > 1 && p[end - 1] == L'/') --end;
    parent.path = fromWide(p.substr(0, end));
    return parent;
}

CURI CURI::toNormalized() const
{
    CURI uri(*this);
    uri.scheme = scheme.toLowerASCII();
    uri.authority = normalizeAuthority(authority);
    uri.path = normalizePath(path);
    return uri;
}

String CURI::toString(bool decoded) const
{
    String out;
    if (!scheme.empty()) out += scheme + ":";
    if (hasAuthority) out += "//" + authority;
    out += decoded ? path : encodePath(path, scheme.empty() && !hasAuthority, !hasAuthority);
    if (!query.empty()) out += "?" + query;
    if (!fragment.empty()) out += "#" + fragment;
    return out;
}

CURI CURI::operator<<(const CURI& relative) const
{
    if (!relative.scheme.empty()) return relative;
    if (relative.hasAuthority) return relative.withScheme(scheme);
    CURI uri(relative);
    uri.scheme = scheme;
    uri.authority = authority;
    uri.hasAuthority = hasAuthority;
    if (!relative.path.startsWith("/")) uri.path = joinPath(path, chars(relative.path), hasAuthority);
    return uri;
}

CURI CURI::operator<<(const String& relativePath) const
{
    std::wstring_view relative = chars(relativePath);
    while (!relative.empty() && relative[0] == L'/') relative.remove_prefix(1);
    CURI uri(*this);
    uri.query.clear();
    uri.fragment.clear();
    uri.path = joinPath(path, relative, hasAuthority);
    return uri;
}

bool CURI::operator==(const CURI& other) const
{
    return scheme == other.scheme && hasAuthority == other.hasAuthority && authority == other.authority &&
           path == other.path && query == other.query && fragment == other.fragment;
}

bool CURI::operator<(const CURI& other) const
{
    return std::tie(scheme, hasAuthority, authority, path, query, fragment) <
           std::tie(other.scheme, other.hasAuthority, other.authority, other.path, other.query, other.fragment);
}

} // namespace zu
