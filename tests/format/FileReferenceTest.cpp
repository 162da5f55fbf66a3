// File names inside descriptors, written on Windows or on Unix, resolve to
// the files beside the descriptor that names them.
#include "common/TestUtil.h"

#include "format/VMDKFileReference.h"

using kordtest::expectThrows;

namespace {

// The folder of a descriptor at /data/vm/disk.vmdk.
const zu::CURI base = zu::CURI(zu::CUnixPath(zu::String("/data/vm/disk.vmdk")), true).getParent();

std::string resolve(const char* reference, const zu::CURI& from = base)
{
    return kord::vmdkFileReferenceToURI(from, zu::String(reference)).toString(true).toUTF8();
}

} // namespace

TEST(FileReferenceTest, drivePathIsAbsoluteWhateverTheBase)
{
    EXPECT_EQ("file:///C:/vms/disk-s001.vmdk", resolve("C:\\vms\\disk-s001.vmdk"));
    EXPECT_EQ("file:///C:/vms/disk-s001.vmdk", resolve("c:/vms/disk-s001.vmdk", zu::CURI(zu::String("file://host/x"))));
    EXPECT_EQ("file:///D:/parent.vmdk", resolve("D:\\vms\\..\\parent.vmdk"));
}

TEST(FileReferenceTest, relativeNamesResolveBesideTheDescriptor)
{
    EXPECT_EQ("file:///data/vm/disk-s001.vmdk", resolve("disk-s001.vmdk"));
    EXPECT_EQ("file:///data/vm/sub/disk-s001.vmdk", resolve("sub\\disk-s001.vmdk"));
    EXPECT_EQ("file:///data/vm/sub/disk-s001.vmdk", resolve("sub/./disk-s001.vmdk"));
    EXPECT_EQ("file:///data/parent.vmdk", resolve("../parent.vmdk"));
    EXPECT_EQ("file:///data/parent.vmdk", resolve("..\\parent.vmdk"));
    EXPECT_EQ("file:///data/vm/my disk.vmdk", resolve("my disk.vmdk"));
    // A rooted Unix name ignores the base.
    EXPECT_EQ("file:///other/x.vmdk", resolve("/other/x.vmdk"));
}

TEST(FileReferenceTest, twoCharacterDriveIsNotADrivePath)
{
    // "C:" lacks the separator after the colon: it is a plain relative name.
    EXPECT_EQ("file:///data/vm/C:", resolve("C:"));
}

TEST(FileReferenceTest, doubleSeparatorNamesAServer)
{
    EXPECT_EQ("file://server/share/disk.vmdk", resolve("//server/share/disk.vmdk"));
    EXPECT_EQ("file://server/share/disk.vmdk", resolve("\\\\server\\share\\disk.vmdk"));
}

TEST(FileReferenceTest, malformedWindowsNameThrowsBadPath)
{
    expectThrows<zu::CBadPathError>([] { resolve("C:\\vms\\a<b.vmdk"); });
    expectThrows<zu::CBadPathError>([] { resolve("sub\\a|b.vmdk"); });
}
