// File system paths of one platform's syntax, normalised on construction.
//
// A path is a root (possibly empty) and a list of components. The traits
// class tells the syntax: which characters separate, what a root looks like
// and which names are invalid. Unix paths and Windows paths are both needed
// on every platform, because descriptors written on either name their files
// in their own syntax.
#pragma once

#include "base/CError.h"
#include "base/String.h"

#include <vector>

namespace zu {

// "/" separates; a path starting with "/" is absolute; every other character
// is allowed in a name except NUL.
struct CUnixPathTraits {
    static bool isSeparator(wchar_t c) { return c == L'/'; }
    static wchar_t getSeparator() { return L'/'; }
    static bool isAbsolute(const String& path);
    // Characters of the root: 1 for "/", else 0.
    static int getRootLength(const String& path);
    static String normalizeRoot(const String& root);
    static String normalizeSeparators(const String& path);
    static String normalizeComponent(const String& component);
    static String finalizeNormalizedPath(const String& path);
    static bool pathNeedsToBeNormalizedToBeValid(const String& path);
};

// "\" and "/" both separate. Roots: "C:\" (absolute), "C:" (drive-relative),
// "\\server\share\" (UNC, absolute) and "\" (root of the current drive).
// Names must not contain < > : " | ? * or control characters; trailing dots
// and spaces of a name are dropped, as Windows does.
struct CWindowsPathTraits {
    static bool isSeparator(wchar_t c) { return c == L'\\' || c == L'/'; }
    static wchar_t getSeparator() { return L'\\'; }
    static bool isAbsolute(const String& path);
    // Characters of the root including its trailing separator; 0 when none.
    // Throws CBadPathError for an incomplete UNC root ("\\server").
    static int getRootLength(const String& path);
    // Upper-case drive letter, backslashes.
    static String normalizeRoot(const String& root);
    // Every separator becomes "\"; runs of separators collapse to one
    // (except the two that open a UNC root).
    static String normalizeSeparators(const String& path);
    // Throws CBadPathError for a name with invalid characters.
    static String normalizeComponent(const String& component);
    static String finalizeNormalizedPath(const String& path);
    // True when the text is not valid as it stands (forward slashes,
    // repeated separators, names with trailing dots or spaces).
    static bool pathNeedsToBeNormalizedToBeValid(const String& path);
};

template <class Traits>
class TPathImpl {
public:
    TPathImpl() = default;
    // Normalises: separators, root, "." dropped, ".." resolved against the
    // preceding component (kept at the start of a relative path, dropped at
    // the root of an absolute one). Throws CBadPathError for a malformed path.
    explicit TPathImpl(const String& path);

    bool isAbsolute() const { return Traits::isAbsolute(root); }
    bool isEmpty() const { return root.empty() && components.empty(); }
    // The normalised root ("/", "C:\", "\\server\share\", or empty).
    const String& getRoot() const { return root; }
    const std::vector<String>& getComponents() const { return components; }
    // The normalised text in the platform's own syntax.
    String toString() const;

private:
    String root;
    std::vector<String> components;
    // The normalised text, built once by the constructor.
    String text;
};

using CUnixPath = TPathImpl<CUnixPathTraits>;
using CWindowsPath = TPathImpl<CWindowsPathTraits>;

extern template class TPathImpl<CUnixPathTraits>;
extern template class TPathImpl<CWindowsPathTraits>;

} // namespace zu
