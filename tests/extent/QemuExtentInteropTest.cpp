// Extents written by kord, wrapped with their embedded descriptor, convert
// to raw with qemu-img to exactly the bytes that were written; and extents
// that qemu-img writes read in kord as the bytes they were made from.
// qemu-img is a black box here; the tests skip only where it is missing.
#include "common/ExtentTestUtil.h"

#include <random>

using kordtest::Bytes;

namespace {

constexpr long long grainSectors = 128;
constexpr long long grainBytes = grainSectors * 512;
constexpr long long grains = 400;
constexpr long long sizeBytes = grains * grainBytes;

std::string quoted(const std::string& path) { return "'" + path + "'"; }

class QemuExtentInteropTest : public testing::TestWithParam<bool> {
protected:
    void SetUp() override
    {
        if (!kordtest::haveTool("qemu-img"))
            GTEST_SKIP() << "qemu-img is not installed; run scripts/setup.sh (package qemu-utils) to check interop";
    }
    bool streamOptimized() const { return GetParam(); }
    std::string path(const std::string& name) const { return temp.file(name); }
    zu::CURI uri(const std::string& name) const { return zu::CLocalFileSystem::pathToURI(zu::String(path(name))); }

    // The whole virtual disk qemu-img sees in a VMDK file.
    Bytes qemuRaw(const std::string& vmdk)
    {
        std::string out;
        EXPECT_EQ(0, kordtest::runCommand("qemu-img convert -f vmdk -O raw " + quoted(path(vmdk)) + " " +
                                              quoted(path("out.raw")),
                                          &out))
            << out;
        return kordtest::readAll(fs, uri("out.raw"));
    }

    kordtest::TempDir temp;
    zu::P<zu::IFileSystem> fs = zu::newObj<zu::CLocalFileSystem>();
};

// Writes a few hundred grains' worth of partial and whole grains of mixed
// content, and returns what the disk now holds.
Bytes writePattern(kord::IVMDKExtentFile& extent)
{
    Bytes mirror(static_cast<size_t>(sizeBytes), 0);
    std::mt19937 rng(7);
    for (int op = 0; op < 300; ++op) {
        long long pos = rng() % sizeBytes;
        if (op % 3 == 0) pos -= pos % grainBytes;
        long long n = std::min<long long>(1 + rng() % (2 * grainBytes), sizeBytes - pos);
        Bytes data = op % 2 ? kordtest::compressible(n, rng()) : kordtest::pattern(static_cast<size_t>(n), rng());
        if (op % 7 == 0) std::fill(data.begin(), data.end(), 0);
        extent.seek(pos);
        extent.write(data.data(), static_cast<int>(n));
        std::copy(data.begin(), data.end(), mirror.begin() + pos);
    }
    return mirror;
}

// qemu's raw image may be longer when it rounds the capacity up: the common
// prefix must match and the rest be zero.
void expectSameDisk(const Bytes& expected, const Bytes& raw)
{
    ASSERT_GE(raw.size(), expected.size());
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), raw.begin())) << "the disks differ";
    EXPECT_TRUE(std::all_of(raw.begin() + static_cast<long>(expected.size()), raw.end(), [](unsigned char b) { return b == 0; }));
}

} // namespace

TEST_P(QemuExtentInteropTest, extentWrittenByKordConvertsToTheBytesWritten)
{
    kordtest::createExtent(fs, uri("extent.vmdk"), {streamOptimized(), false, ""}, grains, grainSectors);
    Bytes expected;
    {
        kordtest::ExtentSetup setup;
        zu::P<kord::CVMDKSparseExtentFile> extent = setup.open(fs, uri("extent.vmdk"));
        expected = writePattern(*extent);
    }
    expectSameDisk(expected, qemuRaw("extent.vmdk"));
    if (!streamOptimized()) {
        std::string out;
        EXPECT_EQ(0, kordtest::runCommand("qemu-img check " + quoted(path("extent.vmdk")), &out)) << out;
    }
}

TEST_P(QemuExtentInteropTest, extentWrittenByQemuReadsAsItsSource)
{
    Bytes source(static_cast<size_t>(sizeBytes), 0);
    Bytes data = kordtest::compressible(sizeBytes / 2, 3);
    std::copy(data.begin(), data.end(), source.begin() + grainBytes / 2); // partial grains at both ends
    kordtest::writeAll(fs, uri("source.raw"), source);
    std::string out;
    ASSERT_EQ(0, kordtest::runCommand("qemu-img convert -f raw -O vmdk -o subformat=" +
                                          std::string(streamOptimized() ? "streamOptimized " : "monolithicSparse ") +
                                          quoted(path("source.raw")) + " " + quoted(path("extent.vmdk")),
                                      &out))
        << out;
    kordtest::ExtentSetup setup;
    if (streamOptimized()) {
        // Its layout (no slot-size directory, grain tables after the grains)
        // is not ours: refused with a clear error, never misread.
        EXPECT_THROW(setup.open(fs, uri("extent.vmdk")), zu::CError);
        return;
    }
    zu::P<kord::CVMDKSparseExtentFile> extent = setup.open(fs, uri("extent.vmdk"));
    Bytes back(source.size());
    extent->read(back.data(), static_cast<int>(back.size()));
    EXPECT_EQ(source, back);

    // kord's changes to qemu's file read back in qemu.
    Bytes patch = kordtest::pattern(3 * grainBytes, 8);
    extent->seek(sizeBytes - grainBytes - 100);
    extent->write(patch.data(), static_cast<int>(grainBytes + 100));
    extent->seek(grainBytes * 10 + 7);
    extent->write(patch.data(), static_cast<int>(patch.size()));
    extent = nullptr;
    std::copy(patch.begin(), patch.begin() + grainBytes + 100, source.end() - grainBytes - 100);
    std::copy(patch.begin(), patch.end(), source.begin() + grainBytes * 10 + 7);
    expectSameDisk(source, qemuRaw("extent.vmdk"));
}

INSTANTIATE_TEST_SUITE_P(Layouts, QemuExtentInteropTest, testing::Values(false, true),
                         [](const testing::TestParamInfo<bool>& info) {
                             return info.param ? "streamOptimized" : "monolithicSparse";
                         });
