// URIs and paths: the encoded form reads back equal, malformed escapes and
// invalid Windows names are refused, and both path syntaxes normalise to one
// spelling. (How descriptor file names resolve is checked with the
// file-reference code.)
#include "common/TestUtil.h"

#include "base/CURI.h"
#include "base/TPathImpl.h"

#include <functional>

using zu::CBadPathError;
using zu::CInvalidArgError;
using zu::CUnixPath;
using zu::CURI;
using zu::CWindowsPath;
using zu::String;
using kordtest::expectThrows;

namespace {

using Cases = std::initializer_list<std::pair<const char*, const char*>>;

std::string str(const String& s) { return s.toUTF8(); }
std::string enc(const CURI& u) { return str(u.toString(false)); }
std::string dec(const CURI& u) { return str(u.toString(true)); }
CURI uri(const char* text) { return CURI(String(text)); }

// Each case is {input, expected}.
void expectMapped(const std::function<std::string(const char*)>& f, Cases cases)
{
    for (const auto& c : cases) EXPECT_EQ(c.second, f(c.first)) << c.first;
}

} // namespace

TEST(URITest, parsesComponentsAndDecodesPath)
{
    CURI u = uri("http://User@Host:8080/a%20b/%C3%A9t%C3%A9?q=%20#frag");
    EXPECT_EQ("http|User@Host:8080|/a b/\xC3\xA9t\xC3\xA9|q=%20|frag",
              str(u.getScheme() + "|" + u.getAuthority() + "|" + u.getPath() + "|" + u.getQuery() + "|" + u.getFragment()));
    EXPECT_TRUE(u.isAbsolute());
    EXPECT_FALSE(uri("sub/x.vmdk").isAbsolute());
    EXPECT_FALSE(uri("file:x").isAbsolute()); // scheme but nothing rooted
    EXPECT_TRUE(uri("file://server").isAbsolute());
    EXPECT_FALSE(uri("file://").isEmpty()); // an empty authority is still one
    // A scheme-less UNC name written on Windows reads as authority and path.
    CURI unc = uri("\\\\server\\share\\x.vmdk");
    EXPECT_EQ("server /share/x.vmdk", str(unc.getAuthority() + " " + unc.getPath()));
}

TEST(URITest, encodedFormRoundTrips)
{
    const CURI spaced(CUnixPath(String("/data/my disk 100%.vmdk")), true);
    EXPECT_EQ("file:///data/my%20disk%20100%25.vmdk", enc(spaced));
    const CURI accented(CUnixPath(String("/d\xC3\xA9j\xC3\xA0/\xE6\x97\xA5?#[x]")), true);
    EXPECT_EQ("file:///d%C3%A9j%C3%A0/%E6%97%A5%3F%23%5Bx%5D", enc(accented));
    // A colon in the first name of a relative reference would read back as
    // a scheme; elsewhere it stays plain.
    const CURI colon(CUnixPath(String("a:b/c:d")), false);
    EXPECT_EQ("a%3Ab/c:d", enc(colon));
    // Without an authority a path opening with "//" must not read back as one.
    const CURI doubleSlash = uri("x:/%2Fb");
    EXPECT_EQ("//b", str(doubleSlash.getPath()));
    EXPECT_EQ("x:/%2Fb", enc(doubleSlash));
    for (const CURI& u : {spaced, accented, colon, doubleSlash, CURI(CUnixPath(String("a\\b")), false), uri("http://h/p?q#f"),
                          CURI(CWindowsPath(String("\\\\srv\\share\\a b")), true)}) {
        EXPECT_EQ(u, CURI(u.toString(false))) << dec(u);
    }
}

TEST(URITest, malformedEscapesThrow)
{
    for (const char* text : {"file:///a%G1", "file:///a%4", "x/%", "file:///%zz/b"})
        EXPECT_EQ(text, str(expectThrows<CInvalidArgError>([&] { uri(text); }).getProp("uri")));
    auto e = expectThrows<CInvalidArgError>([] { uri("file:///ab%4"); });
    EXPECT_EQ("Invalid argument passed to 'zu::CURI': malformed percent escape at position 10.", kordtest::msg(e));
    EXPECT_EQ("10", str(e.getProp("position")));
    e = expectThrows<CInvalidArgError>([] { uri("file:///a%FF%FE"); });
    EXPECT_EQ("Invalid argument passed to 'zu::CURI': percent escapes that are not UTF-8 at position 9.", kordtest::msg(e));
}

TEST(PathTest, unixNormalisation)
{
    expectMapped([](const char* p) { return str(CUnixPath(String(p)).toString()); },
                 {{"//a/./b/../c/", "/a/c"}, {"/../../x", "/x"}, {"/a/..", "/"}, {"../a/../../b", "../../b"},
                  {"a/..", ""}, {"a\\b:c", "a\\b:c"}});
    EXPECT_THROW(CUnixPath(String(wxString(L"a/b\0c", 5))), CBadPathError);

    // Climbing out of a deep path stays linear.
    std::wstring deep;
    for (int i = 0; i < 100000; ++i) deep += L"/name";
    for (int i = 0; i < 100001; ++i) deep += L"/..";
    EXPECT_EQ("/", str(CUnixPath(String(wxString(deep))).toString()));
}

TEST(PathTest, windowsNormalisationAndInvalidNames)
{
    expectMapped([](const char* p) { return str(CWindowsPath(String(p)).toString()); },
                 {{"c:/x//y/", "C:\\x\\y"}, {"C:\\a\\..\\..\\b", "C:\\b"}, {"//server/share/x/../..", "\\\\server\\share\\"},
                  {"a\\b. .\\.\\c", "a\\b\\c"}, {"a\\..\\..\\x", "..\\x"}, {"\\..\\x", "\\x"}, {"d:..\\x", "D:..\\x"}});
    // Only a drive with a separator or a whole UNC root is absolute.
    expectMapped([](const char* p) {
        CWindowsPath path{String(p)};
        return str(path.getRoot()) + (path.isAbsolute() ? " absolute" : "");
    }, {{"C:\\", "C:\\ absolute"}, {"\\\\s\\h", "\\\\s\\h\\ absolute"}, {"C:", "C:"}, {"\\x", "\\"}});

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
    // Absolute paths give absolute URIs, relative ones relative references.
    expectMapped([](const char* p) { return dec(CURI(CUnixPath(String(p)), p[0] == '/')); },
                 {{"/data//x/", "file:///data/x"}, {"/", "file:///"}, {"sub/x", "sub/x"}});
    expectMapped([](const char* p) {
        CWindowsPath path{String(p)};
        return dec(CURI(path, path.isAbsolute()));
    },
                 {{"c:\\vms\\x.vmdk", "file:///C:/vms/x.vmdk"}, {"\\\\server\\share", "file://server/share"},
                  {"sub\\x.vmdk", "sub/x.vmdk"}, {"\\x.vmdk", "/x.vmdk"}, {"C:x", "C:/x"}});
    EXPECT_THROW(CURI(CUnixPath(String("sub/x")), true), CBadPathError);
    EXPECT_THROW(CURI(CWindowsPath(String("\\x.vmdk")), true), CBadPathError);
    EXPECT_THROW(CURI(CWindowsPath(String("C:x")), true), CBadPathError);
}

TEST(URITest, nameTitleExtensionAndParent)
{
    expectMapped([](const char* u) { return str(uri(u).getName() + "|" + uri(u).getTitle() + "|" + uri(u).getExtension()); },
                 {{"file:///d/archive.tar.gz", "archive.tar.gz|archive.tar|gz"}, {"file:///d/.hidden", ".hidden|.hidden|"},
                  {"file:///d/.hidden.vmdk", ".hidden.vmdk|.hidden|vmdk"}, {"file:///d.x/name.", "name.|name|"},
                  {"file:///d/dir/", "dir|dir|"}, {"file:///", "||"}, {"plain", "plain|plain|"}});
    // The parent stops at the root.
    expectMapped([](const char* u) { return dec(uri(u).getParent()); },
                 {{"file:///data/vm/disk.vmdk?q#f", "file:///data/vm"}, {"file:///data//vm/", "file:///data"},
                  {"file:///x", "file:///"}, {"file:///", "file:///"}, {"file://server", "file://server"},
                  {"file://server/share", "file://server/"}, {"sub/x", "sub"}, {"x", ""}});
}

TEST(URITest, appendResolvesLikeReferences)
{
    const CURI base = uri("file://host/data/vm?q#f");
    expectMapped([&](const char* r) { return dec(base << uri(r)); },
                 {{"http://o/p", "http://o/p"}, {"//other/p", "file://other/p"}, {"/root/x?r", "file://host/root/x?r"},
                  {"sub/x#g", "file://host/data/vm/sub/x#g"}, {"../p.vmdk", "file://host/data/vm/../p.vmdk"}});
    EXPECT_EQ("file://host/data/vm/a/b", dec(base << String("/a/b")));
    EXPECT_EQ("file://host/x", dec(uri("file://host") << String("x")));
    EXPECT_EQ("file:///data/vm/disk.vmdk.lock", dec(CURI(uri("file:///data/vm/"), String("disk.vmdk.lock"))));
    for (const char* name : {"", ".", "..", "a/b"}) EXPECT_THROW(CURI(base, String(name)), CInvalidArgError) << name;
}

TEST(URITest, normalisedSpellingsAreEqual)
{
    expectMapped([](const char* u) { return dec(uri(u).toNormalized()); },
                 {{"FILE://SerVer/a/./b//c/", "file://server/a/b/c"}, {"HTTP://User@HOST:80/x", "http://User@host:80/x"},
                  {"file:///a/../../x", "file:///x"}, {"file:///a/..", "file:///"}, {"a/../../../b", "../../b"}, {"a/./..", ""}});
    EXPECT_EQ(uri("file:///data/my%20disk.vmdk").toNormalized(), uri("File:///data/./x/../my disk.vmdk").toNormalized());
    EXPECT_NE(uri("file:///a/"), uri("file:///a"));
    EXPECT_NE(uri("file:/a"), uri("file:///a"));
    EXPECT_TRUE(uri("file:///a") < uri("file:///b") && !(uri("file:///b") < uri("file:///a")));
}
