// Empty extent files made by createEmptyVMDKSparseExtentFile are read by
// independent VMDK readers (qemu-img, vmdkinfo) as empty disks of the right
// size without complaint.
#include "common/ExtentTestUtil.h"

#include <iostream>

namespace {

constexpr long long grainSectors = 128;
constexpr long long grainCount = 520;        // two grain tables, the second partly used
constexpr long long capacityBytes = grainCount * grainSectors * 512;

std::string quoted(const std::string& path) { return "'" + path + "'"; }

class QemuInteropTest : public testing::TestWithParam<bool> {};

} // namespace

TEST_P(QemuInteropTest, readersSeeAnEmptyDiskOfTheRightSize)
{
    if (!kordtest::haveTool("qemu-img"))
        GTEST_SKIP() << "qemu-img is not installed; run scripts/setup.sh (package qemu-utils) to check interop";
    const bool streamOptimized = GetParam();
    const std::string createType = streamOptimized ? "streamOptimized" : "monolithicSparse";
    kordtest::TempDir temp;
    const std::string disk = temp.file("extent.vmdk");    // the name its descriptor gives
    zu::P<zu::IFileSystem> fs = zu::newObj<zu::CLocalFileSystem>();
    kordtest::createExtent(fs, zu::CLocalFileSystem::pathToURI(zu::String(disk)), {streamOptimized, false, ""},
                           grainCount, grainSectors);

    std::string out;
    ASSERT_EQ(0, kordtest::runCommand("qemu-img info --output=json " + quoted(disk), &out)) << out;
    EXPECT_NE(std::string::npos, out.find("\"virtual-size\": " + std::to_string(capacityBytes))) << out;
    EXPECT_NE(std::string::npos, out.find("\"create-type\": \"" + createType)) << out;
    EXPECT_EQ(streamOptimized, out.find("\"compressed\": true") != std::string::npos) << out;
    EXPECT_EQ(0, kordtest::runCommand("qemu-img check " + quoted(disk), &out)) << out;
    EXPECT_NE(std::string::npos, out.find("No errors were found on the image.")) << out;

    const std::string raw = temp.file("disk.raw");
    ASSERT_EQ(0, kordtest::runCommand("qemu-img convert -O raw " + quoted(disk) + " " + quoted(raw), &out)) << out;
    EXPECT_EQ(kordtest::Bytes(capacityBytes, 0),
              kordtest::readAll(fs, zu::CLocalFileSystem::pathToURI(zu::String(raw))));

    if (!kordtest::haveTool("vmdkinfo")) {
        std::cout << "vmdkinfo is not installed (package libvmdk-utils): not checked\n";
        return;
    }
    ASSERT_EQ(0, kordtest::runCommand("vmdkinfo " + quoted(disk), &out)) << out;
    EXPECT_NE(std::string::npos, out.find(streamOptimized ? "Stream optimized" : "Monolithic sparse")) << out;
    EXPECT_NE(std::string::npos, out.find("(" + std::to_string(capacityBytes) + " bytes)")) << out;
    EXPECT_NE(std::string::npos, out.find("0x1234abcd")) << out;
}

INSTANTIATE_TEST_SUITE_P(Layout, QemuInteropTest, testing::Values(false, true),
                         [](const testing::TestParamInfo<bool>& info) {
                             return std::string(info.param ? "StreamOptimized" : "MonolithicSparse");
                         });
