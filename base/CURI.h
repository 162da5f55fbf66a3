// URIs name every file the libraries touch: "file:///data/vm/disk.vmdk" for
// local files, relative references ("sub/disk-s001.vmdk") while they are being
// resolved. The path is held decoded; percent-encoding is applied only when
// the URI is written in its encoded form.
#pragma once

#include "base/String.h"
#include "base/TPathImpl.h"

namespace zu {

class CURI {
public:
    CURI() = default;
    // Parses an RFC 3986 URI or relative reference; %XX escapes in the path
    // are decoded (as UTF-8). Throws CInvalidArgError for malformed escapes.
    // In a reference without a scheme a backslash is read as "/", so that a
    // UNC name written on Windows ("\\server\share\x") names a server.
    explicit CURI(const String& text);
    // A "file" URI for an absolute path; a relative reference (no scheme)
    // for a relative one. With `mustBeAbsolute` a relative path throws
    // CBadPathError. A Windows drive path becomes "file:///C:/dir/name", a
    // UNC path "file://server/share/dir/name". A path relative to a drive's
    // current folder ("C:x") keeps "C:" as its first name ("C:/x").
    CURI(const CUnixPath& path, bool mustBeAbsolute);
    CURI(const CWindowsPath& path, bool mustBeAbsolute);
    // The child named `name` of a directory URI.
    CURI(const CURI& parent, const String& name);

    bool isEmpty() const;
    // A scheme and a rooted path (or an authority): nothing left to resolve.
    bool isAbsolute() const;

    const String& getScheme() const { return scheme; }
    const String& getAuthority() const { return authority; }
    // The decoded path, "/"-separated.
    const String& getPath() const { return path; }
    const String& getQuery() const { return query; }
    const String& getFragment() const { return fragment; }
    // A copy with another scheme (empty: a pure relative reference).
    CURI withScheme(const String& newScheme) const;

    // Last path component ("disk.vmdk").
    String getName() const;
    // Name without its last extension ("disk"); a name that starts with its
    // only dot (".hidden") is all title.
    String getTitle() const;
    // Last extension without the dot ("vmdk"); empty when there is none.
    String getExtension() const;
    // The URI of the directory holding this one; the root is its own parent.
    CURI getParent() const;
    // Lower-case scheme and host; "." dropped, ".." resolved, repeated and
    // trailing "/" removed. Two URIs naming the same file by different
    // spellings are equal once normalised.
    CURI toNormalized() const;

    // decoded = true: the form for people and error properties, with the
    // path as plain text ("file:///data/my disk.vmdk"). decoded = false: the
    // encoded RFC 3986 form ("file:///data/my%20disk.vmdk"), which parses
    // back to an equal URI.
    String toString(bool decoded) const;

    // Resolves `relative` against this URI taken as a directory: a reference
    // with a scheme replaces it; one with an authority keeps only the scheme;
    // a rooted path replaces the path; any other path is appended below it.
    CURI operator<<(const CURI& relative) const;
    // Appends "/"-separated path text below this URI.
    CURI operator<<(const String& relativePath) const;

    // Component-wise equality (no normalisation).
    bool operator==(const CURI& other) const;
    bool operator!=(const CURI& other) const { return !(*this == other); }
    bool operator<(const CURI& other) const;

private:
    String scheme;
    String authority;
    String path;
    String query;
    String fragment;
    bool hasAuthority = false;
};

} // namespace zu
