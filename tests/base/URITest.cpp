// URIs and paths: the encoded form reads back equal, malformed escapes and
// invalid Windows names are refused, both path syntaxes normalise to one
// spelling, and descriptor file references resolve against their folder.
#include "common/TestUtil.h"

#include "base/CURI.h"
#include "base/TPathImpl.h"

using zu::CBadPathError;
using zu::CInvalidArgError;
using zu::CUnixPath;
using zu::CURI;
using zu::CWindowsPath;
using zu::String;
using kordtest::expectThrows;

namespace {

std::string str(const String& s) { return s.toUTF8(); }
std::string enc(const CURI& u) { return str(u.toString(false)); }
std::string dec(const CURI& u) { return str(u.toString(true)); }
std::string norm(const char* text) { return dec(CURI(String(text)).toNormalized()); }
std::string unixPath(const char* text) { return str(CUnixPath(String(text)).toString()); }
std::string winPath(const char* text) { return str(CWindowsPath(String(text)).toString()); }

} // namespace

TEST(URITest, parsesComponentsAndDecodesPath)
{
    CURI u(String("http://User@Host:8080/a%20b/%C3%A9t%C3%A9?q=%20#frag"));
    EXPECT_EQ("http", str(u.getScheme()));
    EXPECT_EQ("User@Host:8080", str(u.getAuthority()));
    EXPECT_EQ("/a b/\xC3\xA9t\xC3\xA9", str(u.getPath()));
    EXPECT_EQ("q=%20", str(u.getQuery()));
    EXPECT_EQ("frag", str(u.getFragment()));
    EXPECT_TRUE(u.isAbsolute());

    CURI relative(String("sub/x.vmdk"));
    EXPECT_TRUE(relative.getScheme().empty());
    EXPECT_FALSE(relative.isAbsolute());
    EXPECT_FALSE(CURI(String("file:x")).isAbsolute());   // scheme but nothing rooted
    EXPECT_TRUE(CURI(String("file://server")).isAbsolute());
    EXPECT_TRUE(CURI().isEmpty());
    EXPECT_FALSE(CURI(String("file://")).isEmpty());     // an empty authority is still one
    // A scheme-less UNC name written on Windows reads as authority and path.
    CURI unc(String("\\\\server\\share\\x.vmdk"));
    EXPECT_EQ("server", str(unc.getAuthority()));
    EXPECT_EQ("/share/x.vmdk", str(unc.getPath()));
}

TEST(URITest, encodedFormRoundTrips)
{
    const CURI spaced(CUnixPath(String("/data/my disk 100%.vmdk")), true);
    EXPECT_EQ("file:///data/my%20disk%20100%25.vmdk", enc(spaced));
    EXPECT_EQ("file:///data/my disk 100%.vmdk", dec(spaced));
    const CURI accented(CUnixPath(String("/d\xC3\xA9j\xC3\xA0/\xE6\x97\xA5?#[x]")), true);
    EXPECT_EQ("file:///d%C3%A9j%C3%A0/%E6%97%A5%3F%23%5Bx%5D", enc(accented));
    // A colon in the first name of a relative reference would read back as
    // a scheme; elsewhere it stays plain.
    const CURI colon(CUnixPath(String("a:b/c:d")), false);
    EXPECT_EQ("a%3Ab/c:d", enc(colon));
    const CURI backslash(CUnixPath(String("a\\b")), false);
    EXPECT_EQ("a%5Cb", enc(backslash));
    // Without an authority a path opening with "//" must not read back as one.
    const CURI doubleSlash(String("x:/%2Fb"));
    EXPECT_EQ("//b", str(doubleSlash.getPath()));
    EXPECT_EQ("x:/%2Fb", enc(doubleSlash));
    for (const CURI& u : {spaced, accented, colon, backslash, doubleSlash,
                          CURI(String("http://h/p?q#f")), CURI(CWindowsPath(String("\\\\srv\\share\\a b")), true)}) {
        EXPECT_EQ(u, CURI(u.toString(false))) << dec(u);
    }
}

TEST(URITest, malformedEscapesThrow)
{
    for (const char* text : {"file:///a%G1", "file:///a%4", "x/%", "file:///%zz/b"}) {
        auto e = expectThrows<CInvalidArgError>([&] { CURI(String(text)); });
        EXPECT_EQ(text, str(e.getProp("uri")));
    }
    auto e = expectThrows<CInvalidArgError>([] { CURI(String("file:///ab%4")); });
    EXPECT_EQ("Invalid argument passed to 'zu::CURI': malformed percent escape at position 10.", kordtest::msg(e));
    EXPECT_EQ("10", str(e.getProp("position")));
    e = expectThrows<CInvalidArgError>([] { CURI(String("file:///a%FF%FE")); });
    EXPECT_EQ("Invalid argument passed to 'zu::CURI': percent escapes that are not UTF-8 at position 9.", kordtest::msg(e));
}

TEST(PathTest, unixNormalisation)
{
    EXPECT_EQ("/a/c", unixPath("//a/./b/../c/"));
    EXPECT_EQ("/x", unixPath("/../../x"));
    EXPECT_EQ("/", unixPath("/a/.."));
    EXPECT_EQ("../../b", unixPath("../a/../../b"));
    EXPECT_EQ("", unixPath("a/.."));
    EXPECT_EQ("a\\b:c", unixPath("a\\b:c"));
    EXPECT_FALSE(CUnixPath(String("a/b")).isAbsolute());
    EXPECT_THROW(CUnixPath(String(wxString(L"a/b\0c", 5))), CBadPathError);

    // Climbing out of a deep path stays linear.
    std::wstring deep;
    for (int i = 0; i < 100000; ++i) deep += L"/name";
    for (int i = 0; i < 100001; ++i) deep += L"/..";
    EXPECT_EQ("/", str(CUnixPath(String(wxString(deep))).toString()));
}

TEST(PathTest, windowsNormalisation)
{
    EXPECT_EQ("C:\\x\\y", winPath("c:/x//y/"));
    EXPECT_EQ("C:\\b", winPath("C:\\a\\..\\..\\b"));
    EXPECT_EQ("\\\\server\\share\\", winPath("//server/share/x/../.."));
    EXPECT_EQ("\\\\server\\share\\x", winPath("\\\\server\\share\\\\x"));
    EXPECT_EQ("a\\b\\c", winPath("a\\b. .\\.\\c"));
    EXPECT_EQ("..\\x", winPath("a\\..\\..\\x"));
    EXPECT_EQ("\\x", winPath("\\..\\x"));
    EXPECT_EQ("D:..\\x", winPath("d:..\\x"));
    EXPECT_TRUE(CWindowsPath(String("C:\\")).isAbsolute());
    EXPECT_TRUE(CWindowsPath(String("\\\\s\\h")).isAbsolute());
    EXPECT_EQ("\\\\s\\h\\", str(CWindowsPath(String("\\\\s\\h")).getRoot()));
    EXPECT_FALSE(CWindowsPath(String("C:")).isAbsolute());
    EXPECT_EQ("C:", str(CWindowsPath(String("C:")).getRoot()));
    EXPECT_FALSE(CWindowsPath(String("\\x")).isAbsolute());

    for (const char* bad : {"C:\\a:b", "a|b", "x\\a?", "\"q\"", "\\\\server", "\\\\server\\", "\\\\\\share",
                            "\\\\se:rver\\share", "a\\b\x01"}) {
        EXPECT_THROW(CWindowsPath(String(bad)), CBadPathError) << bad;
    }
    auto e = expectThrows<CBadPathError>([] { CWindowsPath(String("C:\\vms\\a<b\\x")); });
    EXPECT_EQ("C:\\vms\\a<b\\x", str(e.getProp("path")));
    EXPECT_NE(std::string::npos, kordtest::msg(e).find("'a<b'"));
}

TEST(URITest, fromPaths)
{
    EXPECT_EQ("file:///data/x", dec(CURI(CUnixPath(String("/data//x/")), true)));
    EXPECT_EQ("file:///", dec(CURI(CUnixPath(String("/")), true)));
    EXPECT_EQ("sub/x", dec(CURI(CUnixPath(String("sub/x")), false)));
    EXPECT_THROW(CURI(CUnixPath(String("sub/x")), true), CBadPathError);

    EXPECT_EQ("file:///C:/vms/x.vmdk", dec(CURI(CWindowsPath(String("c:\\vms\\x.vmdk")), true)));
    EXPECT_EQ("file:///C:/", dec(CURI(CWindowsPath(String("C:\\")), true)));
    EXPECT_EQ("file://server/share/x", dec(CURI(CWindowsPath(String("\\\\server\\share\\x")), true)));
    EXPECT_EQ("file://server/share", dec(CURI(CWindowsPath(String("\\\\server\\share")), true)));
    EXPECT_EQ("sub/x.vmdk", dec(CURI(CWindowsPath(String("sub\\x.vmdk")), false)));
    EXPECT_EQ("/x.vmdk", dec(CURI(CWindowsPath(String("\\x.vmdk")), false)));
    EXPECT_EQ("C:/x", dec(CURI(CWindowsPath(String("C:x")), false)));
    EXPECT_THROW(CURI(CWindowsPath(String("\\x.vmdk")), true), CBadPathError);
    EXPECT_THROW(CURI(CWindowsPath(String("C:x")), true), CBadPathError);
}

TEST(URITest, nameTitleExtension)
{
    struct Case { const char* uri; const char* name; const char* title; const char* extension; };
    for (const Case& c : {Case{"file:///d/disk.vmdk", "disk.vmdk", "disk", "vmdk"},
                          Case{"file:///d/archive.tar.gz", "archive.tar.gz", "archive.tar", "gz"},
                          Case{"file:///d/.hidden", ".hidden", ".hidden", ""},
                          Case{"file:///d/.hidden.vmdk", ".hidden.vmdk", ".hidden", "vmdk"},
                          Case{"file:///d/noext", "noext", "noext", ""},
                          Case{"file:///d.x/name.", "name.", "name", ""},
                          Case{"file:///d/dir/", "dir", "dir", ""},
                          Case{"file:///", "", "", ""},
                          Case{"plain", "plain", "plain", ""}}) {
        const CURI u{String(c.uri)};
        EXPECT_EQ(c.name, str(u.getName())) << c.uri;
        EXPECT_EQ(c.title, str(u.getTitle())) << c.uri;
        EXPECT_EQ(c.extension, str(u.getExtension())) << c.uri;
    }
}

TEST(URITest, parentStopsAtRoot)
{
    EXPECT_EQ("file:///data/vm", dec(CURI(String("file:///data/vm/disk.vmdk?q#f")).getParent()));
    EXPECT_EQ("file:///data", dec(CURI(String("file:///data//vm/")).getParent()));
    EXPECT_EQ("file:///", dec(CURI(String("file:///x")).getParent()));
    EXPECT_EQ("file:///", dec(CURI(String("file:///")).getParent()));
    EXPECT_EQ("file://server", dec(CURI(String("file://server")).getParent()));
    EXPECT_EQ("file://server/", dec(CURI(String("file://server/share")).getParent()));
    EXPECT_EQ("sub", dec(CURI(String("sub/x")).getParent()));
    EXPECT_TRUE(CURI(String("x")).getParent().isEmpty());
}

TEST(URITest, appendResolvesLikeReferences)
{
    const CURI base(String("file://host/data/vm?q#f"));
    EXPECT_EQ("http://o/p", dec(base << CURI(String("http://o/p"))));
    EXPECT_EQ("file://other/p", dec(base << CURI(String("//other/p"))));
    EXPECT_EQ("file://host/root/x?r", dec(base << CURI(String("/root/x?r"))));
    EXPECT_EQ("file://host/data/vm/sub/x#g", dec(base << CURI(String("sub/x#g"))));
    EXPECT_EQ("file://host/data/vm/../p.vmdk", dec(base << CURI(String("../p.vmdk"))));
    EXPECT_EQ("file://host/data/vm/a/b", dec(base << String("/a/b")));
    EXPECT_EQ("file://host/x", dec(CURI(String("file://host")) << String("x")));
    EXPECT_EQ("file:///data/vm/disk.vmdk.lock", dec(CURI(CURI(String("file:///data/vm/")), String("disk.vmdk.lock"))));
    EXPECT_EQ("file:///data/parent.vmdk",
              dec((CURI(String("file:///data/vm")) << CURI(String("../parent.vmdk"))).toNormalized()));
    for (const char* name : {"", ".", "..", "a/b"}) {
        EXPECT_THROW(CURI(base, String(name)), CInvalidArgError) << name;
    }
}

TEST(URITest, normalisedSpellingsAreEqual)
{
    EXPECT_EQ("file://server/a/b/c", norm("FILE://SerVer/a/./b//c/"));
    EXPECT_EQ("http://User@host:80/x", norm("HTTP://User@HOST:80/x"));
    EXPECT_EQ("file:///x", norm("file:///a/../../x"));
    EXPECT_EQ("file:///", norm("file:///a/.."));
    EXPECT_EQ("../../b", norm("a/../../../b"));
    EXPECT_EQ("", norm("a/./.."));
    EXPECT_EQ(CURI(String("file:///data/my%20disk.vmdk")).toNormalized(),
              CURI(String("File:///data/./x/../my disk.vmdk")).toNormalized());
    EXPECT_NE(CURI(String("file:///a/")), CURI(String("file:///a")));
    EXPECT_NE(CURI(String("file:/a")), CURI(String("file:///a")));
    EXPECT_LT(CURI(String("file:///a")), CURI(String("file:///b")));
    EXPECT_FALSE(CURI(String("file:///b")) < CURI(String("file:///a")));
}

// How descriptor file references resolve against the descriptor's folder:
// drive paths and backslash names go through Windows paths, "//" names are
// parsed as URIs, everything else is a Unix path.
TEST(URITest, descriptorReferencesResolve)
{
    const CURI base = CURI(CUnixPath(String("/data/vm/disk.vmdk")), true).getParent();
    auto resolve = [&](const CURI& reference) {
        const CURI relative = reference.isAbsolute() ? reference : reference.withScheme(String());
        return dec((relative.isAbsolute() ? relative : base << relative).toNormalized());
    };
    EXPECT_EQ("file:///C:/vms/disk-s001.vmdk", resolve(CURI(CWindowsPath(String("C:\\vms\\disk-s001.vmdk")), true)));
    EXPECT_EQ("file:///data/vm/disk-s001.vmdk", resolve(CURI(CUnixPath(String("disk-s001.vmdk")), false)));
    EXPECT_EQ("file:///data/vm/sub/disk-s001.vmdk", resolve(CURI(CWindowsPath(String("sub\\disk-s001.vmdk")), false)));
    EXPECT_EQ("file:///data/parent.vmdk", resolve(CURI(CUnixPath(String("../parent.vmdk")), false)));
    EXPECT_EQ("file:///data/vm/C:", resolve(CURI(CUnixPath(String("C:")), false)));
    EXPECT_EQ("file:///data/vm/C:/x", resolve(CURI(CWindowsPath(String("C:x\\")), false)));
    EXPECT_EQ("file://server/share/x.vmdk", resolve(CURI(String("//server/share/x.vmdk"))));
    EXPECT_EQ("file://server/share/x.vmdk", resolve(CURI(String("\\\\server\\share\\x.vmdk"))));
    EXPECT_EQ("file:///x.vmdk", resolve(CURI(CUnixPath(String("/x.vmdk")), false)));
}
