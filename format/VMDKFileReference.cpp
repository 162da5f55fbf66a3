#include "format/VMDKFileReference.h"

#include "base/TPathImpl.h"

namespace kord {

namespace {

bool isSeparator(wchar_t c) { return c == L'/' || c == L'\\'; }

bool isDrivePath(const zu::String& reference)
{
    if (reference.length() <= 2) return false;
    wchar_t letter = static_cast<wchar_t>(reference[0].GetValue());
    bool isLetter = (letter >= L'A' && letter <= L'Z') || (letter >= L'a' && letter <= L'z');
    return isLetter && reference[1] == L':' && isSeparator(static_cast<wchar_t>(reference[2].GetValue()));
}

bool startsWithTwoSeparators(const zu::String& reference)
{
    return reference.length() >= 2 && isSeparator(static_cast<wchar_t>(reference[0].GetValue())) &&
           isSeparator(static_cast<wchar_t>(reference[1].GetValue()));
}

zu::CURI referenceToURI(const zu::String& reference)
{
    if (isDrivePath(reference)) return zu::CURI(zu::CWindowsPath(reference), true);
    if (startsWithTwoSeparators(reference)) return zu::CURI(reference);
    if (reference.find(L'\\') != zu::String::npos) return zu::CURI(zu::CWindowsPath(reference), false);
    return zu::CURI(zu::CUnixPath(reference), false);
}

} // namespace

zu::CURI vmdkFileReferenceToURI(const zu::CURI& baseDirectory, const zu::String& reference)
{
    zu::CURI uri = referenceToURI(reference);
    if (!uri.isAbsolute()) {
        uri = uri.withScheme(zu::String());
        if (!uri.isAbsolute()) uri = baseDirectory << uri;
    }
    return uri.toNormalized();
}

} // namespace kord
