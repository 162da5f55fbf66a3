// Extents written by kord, wrapped with their embedded descriptor, convert
// to raw with qemu-img to exactly the bytes that were written. qemu-img is a
// black box here, run on local files; the test skips only where it is
// missing. (Files qemu-img writes are read through whole disks.)
#include "common/ExtentTestUtil.h"

#include <random>

using namespace kordtest;

namespace {

class QemuExtentInteropTest : public ExtentFileTest {
protected:
    void SetUp() override
    {
        ExtentFileTest::SetUp();
        if (!haveTool("qemu-img"))
            GTEST_SKIP() << "qemu-img is not installed; run scripts/setup.sh (package qemu-utils) to check interop";
    }
    void qemuImg(const std::string& command)
    {
        std::string out;
        EXPECT_EQ(0, runCommand("cd '" + temp->path() + "' && qemu-img " + command, &out)) << out;
    }
};

} // namespace

TEST_P(QemuExtentInteropTest, extentWrittenByKordConvertsToTheBytesWritten)
{
    const long long grainBytes = 128 * 512, sizeBytes = 400 * grainBytes;
    for (const ExtentKind& kind : {plainKind, compressedKind}) {
        SCOPED_TRACE(kind.name);
        create(kind, sizeBytes / grainBytes, grainBytes / 512);
        Bytes mirror(sizeBytes, 0);
        std::mt19937 rng(7);
        randomWrites(*open(), mirror, grainBytes, 300, rng);
        qemuImg("convert -f vmdk -O raw extent.vmdk out.raw");
        Bytes raw = readAll(fs, uri("out.raw"));
        ASSERT_GE(raw.size(), mirror.size());
        EXPECT_TRUE(std::all_of(raw.begin() + sizeBytes, raw.end(), [](unsigned char b) { return b == 0; }))
            << "beyond the capacity qemu rounds up to: zeros";
        raw.resize(mirror.size());
        EXPECT_TRUE(raw == mirror) << "qemu-img sees other bytes than were written";
        if (!kind.streamOptimized) qemuImg("check extent.vmdk");
    }
}

// qemu-img works on local files only.
INSTANTIATE_TEST_SUITE_P(Fs, QemuExtentInteropTest, testing::Values(FsKind::local), fsKindName);
