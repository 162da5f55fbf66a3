// URIs and paths: the encoded form reads back equal, malformed escapes and
// invalid Windows names are refused, and the spellings of one file
// normalise to one form. (Drive paths and UNC names in descriptors are
// checked with the file-reference code, names and parents through split
// disks and their lock files.)
#include "common/TestUtil.h"

#include "base/CURI.h"
#include "base/TPathImpl.h"

#include <functional>

using namespace kordtest;
using namespace zu;

namespace {

std::string str(const String& s) { return s.toUTF8(); }
std::string enc(const CURI& u) { return str(u.toString(false)); }
std::string dec(const CURI& u) { return str(u.toString(true)); }
CURI uri(const char* text) { return CURI(String(text)); }

} // namespace

TEST(URITest, spellingsMapToOneFormEncodedFormRoundTripsAndMalformedOnesRefused)
{
    const std::function<std::string(const char*)> unixPath = [](const char* p) { return str(CUnixPath(String(p)).toString()); },
        windowsPath = [](const char* p) { return str(CWindowsPath(String(p)).toString()); },
        fromUnix = [](const char* p) { return dec(CURI(CUnixPath(String(p)), p[0] == '/')); },
        fromWindows = [](const char* p) { return dec(CURI(CWindowsPath(String(p)), true)); },
        normalized = [](const char* u) { return dec(uri(u).toNormalized()); },
        parent = [](const char* u) { return dec(uri(u).getParent()); },
        appended = [](const char* r) { return dec(uri("file://host/data/vm?q#f") << uri(r)); };
    const struct { const std::function<std::string(const char*)>& map; const char *in, *out; } cases[] = {
        {unixPath, "//a/./b/../c/", "/a/c"}, {unixPath, "/../../x", "/x"}, {unixPath, "../a/../../b", "../../b"},
        {unixPath, "a/..", ""}, {unixPath, "a\\b:c", "a\\b:c"},
        {windowsPath, "c:/x//y/", "C:\\x\\y"}, {windowsPath, "//server/share/x/../..", "\\\\server\\share\\"},
        {fromUnix, "/data//x/", "file:///data/x"}, {fromUnix, "sub/x", "sub/x"},
        {fromWindows, "\\\\server\\share", "file://server/share"},
        {normalized, "FILE://SerVer/a/./b//c/", "file://server/a/b/c"}, {normalized, "HTTP://User@HOST:80/x", "http://User@host:80/x"},
        {normalized, "file:///a/../../x", "file:///x"}, {normalized, "a/./..", ""},
        {parent, "file:///data/vm/disk.vmdk?q#f", "file:///data/vm"}, {parent, "file:///", "file:///"},
        {parent, "file://server", "file://server"}, {parent, "x", ""},
        {appended, "//other/p", "file://other/p"}, {appended, "/root/x?r", "file://host/root/x?r"},
        {appended, "../p.vmdk", "file://host/data/vm/../p.vmdk"},
    };
    for (const auto& c : cases) EXPECT_EQ(c.out, c.map(c.in)) << c.in;
    EXPECT_EQ(uri("file:///data/my%20disk.vmdk").toNormalized(), uri("File:///data/./x/../my disk.vmdk").toNormalized());
    EXPECT_NE(uri("file:/a"), uri("file:///a"));

    // The encoded form reads back equal.
    // A colon in the first name of a relative reference would read back as
    // a scheme; elsewhere it stays plain. Without an authority a path
    // opening with "//" must not read back as one.
    const std::pair<CURI, const char*> encodings[] = {
        {CURI(CUnixPath(String("/data/my disk 100%.vmdk")), true), "file:///data/my%20disk%20100%25.vmdk"},
        {CURI(CUnixPath(String("/d\xC3\xA9j\xC3\xA0/\xE6\x97\xA5?#[x]")), true), "file:///d%C3%A9j%C3%A0/%E6%97%A5%3F%23%5Bx%5D"},
        {CURI(CUnixPath(String("a:b/c:d")), false), "a%3Ab/c:d"}, {uri("x:/%2Fb"), "x:/%2Fb"},
        {CURI(CUnixPath(String("a\\b")), false), "a%5Cb"}, {uri("http://h/p?q#f"), "http://h/p?q#f"},
        {CURI(CWindowsPath(String("\\\\srv\\share\\a b")), true), "file://srv/share/a%20b"},
    };
    for (const auto& [u, encoded] : encodings) {
        EXPECT_EQ(encoded, enc(u));
        EXPECT_EQ(u, CURI(u.toString(false))) << encoded;
    }
    EXPECT_EQ("//b", str(uri("x:/%2Fb").getPath()));

    for (const char* text : {"file:///a%G1", "x/%", "file:///%zz/b"})
        EXPECT_EQ(text, str(expectThrows<CInvalidArgError>([&] { uri(text); }).getProp("uri")));
    auto e = expectThrows<CInvalidArgError>([] { uri("file:///ab%4"); });
    EXPECT_EQ("Invalid argument passed to 'zu::CURI': malformed percent escape at position 10.", kordtest::msg(e));
    EXPECT_EQ("10", str(e.getProp("position")));
    e = expectThrows<CInvalidArgError>([] { uri("file:///a%FF%FE"); });
    EXPECT_EQ("Invalid argument passed to 'zu::CURI': percent escapes that are not UTF-8 at position 9.", kordtest::msg(e));

    for (const char* bad : {"C:\\a:b", "a|b", "x\\a?", "\"q\"", "\\\\server", "\\\\\\share", "\\\\se:rver\\share", "a\\b\x01"})
        EXPECT_THROW(CWindowsPath(String(bad)), CBadPathError) << bad;
    auto b = expectThrows<CBadPathError>([] { CWindowsPath(String("C:\\vms\\a<b\\x")); });
    EXPECT_EQ("C:\\vms\\a<b\\x", str(b.getProp("path")));
    EXPECT_NE(std::string::npos, kordtest::msg(b).find("'a<b'"));
    EXPECT_THROW(CUnixPath(String(wxString(L"a/b\0c", 5))), CBadPathError);
    // Only a drive with a separator or a whole UNC root is absolute.
    for (const char* relative : {"C:x", "\\x.vmdk"}) EXPECT_THROW(CURI(CWindowsPath(String(relative)), true), CBadPathError);
    EXPECT_THROW(CURI(CUnixPath(String("sub/x")), true), CBadPathError);
    for (const char* name : {"", ".", "..", "a/b"}) EXPECT_THROW(CURI(uri("file:///d"), String(name)), CInvalidArgError);

    // Climbing out of a deep path stays linear.
    std::wstring deep;
    for (int i = 0; i < 100000; ++i) deep += L"/name";
    for (int i = 0; i < 100001; ++i) deep += L"/..";
    EXPECT_EQ("/", str(CUnixPath(String(wxString(deep))).toString()));
}
