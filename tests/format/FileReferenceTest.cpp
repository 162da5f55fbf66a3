// File names inside descriptors, written on Windows or on Unix, resolve to
// the files beside the descriptor that names them.
#include "common/TestUtil.h"

#include "format/VMDKFileReference.h"

TEST(FileReferenceTest, referencesResolveBesideTheDescriptorOrWhereTheyPoint)
{
    // The folder of a descriptor at /data/vm/disk.vmdk.
    const zu::CURI base = zu::CURI(zu::CUnixPath(zu::String("/data/vm/disk.vmdk")), true).getParent();
    const zu::CURI server(zu::String("file://host/x"));
    const struct { const char* reference; const zu::CURI& from; const char* expected; } cases[] = {
        // A drive path is absolute whatever the base.
        {"C:\\vms\\disk-s001.vmdk", base, "file:///C:/vms/disk-s001.vmdk"},
        {"c:/vms/disk-s001.vmdk", server, "file:///C:/vms/disk-s001.vmdk"},
        // Relative names, with either separator, resolve beside the descriptor.
        {"disk-s001.vmdk", base, "file:///data/vm/disk-s001.vmdk"},
        {"sub\\disk-s001.vmdk", base, "file:///data/vm/sub/disk-s001.vmdk"},
        {"../parent.vmdk", base, "file:///data/parent.vmdk"},
        {"my disk.vmdk", base, "file:///data/vm/my disk.vmdk"},
        {"/other/x.vmdk", base, "file:///other/x.vmdk"},            // rooted: the base is ignored
        {"C:", base, "file:///data/vm/C:"},                         // no separator after the colon: not a drive
        {"\\\\server\\share\\disk.vmdk", base, "file://server/share/disk.vmdk"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.expected, kord::vmdkFileReferenceToURI(c.from, zu::String(c.reference)).toString(true).toUTF8())
            << c.reference;
}
