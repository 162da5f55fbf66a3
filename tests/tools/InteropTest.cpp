// The kord program on disks qemu-img makes (a black box). That kord and
// qemu-img read each other's sparse and split disks byte for byte, deltas
// included, is checked once, through the library, by the disk interop test.
#include "disk/DiskTestUtil.h"

#include "base/Endian.h"

namespace {

// qemu-img's stream-optimized files lay out their metadata in ways the
// library does not take: refused with the library's message, one line.
TEST(InteropTest, qemuStreamOptimizedIsRefused)
{
    if (!kordtest::haveTool("qemu-img")) GTEST_SKIP() << "qemu-img is not installed (package qemu-utils)";
    kordtest::TempDir temp;
    std::string out;
    disktest::putFile(temp.file("source.raw"), std::string(1 << 20, 'k'));
    ASSERT_EQ(0, kordtest::runCommand("cd '" + temp.path() + "' && qemu-img convert -f raw -O vmdk -o "
                                      "subformat=streamOptimized source.raw qemu-so.vmdk", &out)) << out;
    const std::string header = disktest::fileText(temp.file("qemu-so.vmdk"));
    ASSERT_GE(header.size(), 512u);
    // gdOffset -1: the directory follows the grains (at the end of the file).
    const bool directoryAtEnd = zu::loadLE64(reinterpret_cast<const unsigned char*>(header.data()) + 56) == ~0ULL;
    const std::string message = directoryAtEnd
                                    ? "VMDK file uses an unsupported variant of the 'stream optimized' format."
                                    : "Slot size directory not found in compressed VMDK.";
    EXPECT_EQ(2, kordtest::runCommand("(cd '" + temp.path() + "' && '" KORD_BINARY_DIR
                                      "/tools/kord' convert -O raw qemu-so.vmdk out.raw 2>err.txt >/dev/null)"));
    const std::string err = disktest::fileText(temp.file("err.txt"));
    EXPECT_EQ(0u, err.find("kord: " + message)) << err;
    EXPECT_EQ(1, std::count(err.begin(), err.end(), '\n')) << err;
}

} // namespace
