// Empty extent files made by createEmptyVMDKSparseExtentFile are read by
// independent VMDK readers (qemu-img, vmdkinfo) as empty disks of the right
// size without complaint.
#include "common/TestUtil.h"

#include "descriptor/CVMDKDescriptor.h"
#include "format/VMDKEmptyLayout.h"

#include <algorithm>
#include <fstream>

namespace {

constexpr long long grainSectors = 128;
constexpr long long grainCount = 520;        // two grain tables, the second partly used
constexpr long long capacityBytes = grainCount * grainSectors * 512;

std::string quoted(const std::string& path) { return "'" + path + "'"; }

// A descriptor of the usual form for a one-extent disk.
zu::P<kord::CVMDKDescriptor> usualDescriptor(const std::string& createType, const std::string& fileName)
{
    const long long sectors = grainCount * grainSectors;
    const std::string text = "# Disk DescriptorFile\n"
                             "version=1\n"
                             "CID=5a3c0e11\n"
                             "parentCID=ffffffff\n"
                             "createType=\"" + createType + "\"\n"
                             "\n"
                             "# Extent description\n"
                             "RW " + std::to_string(sectors) + " SPARSE \"" + fileName + "\"\n"
                             "\n"
                             "# The Disk Data Base\n"
                             "#DDB\n"
                             "\n"
                             "ddb.virtualHWVersion = \"4\"\n"
                             "ddb.geometry.cylinders = \"" + std::to_string(sectors / (16 * 63)) + "\"\n"
                             "ddb.geometry.heads = \"16\"\n"
                             "ddb.geometry.sectors = \"63\"\n"
                             "ddb.adapterType = \"lsilogic\"\n";
    zu::TBuffer<unsigned char> bytes(reinterpret_cast<const unsigned char*>(text.data()),
                                     static_cast<long long>(text.size()));
    return zu::newObj<kord::CVMDKDescriptor>(bytes);
}

class QemuInteropTest : public testing::TestWithParam<bool> {
protected:
    void SetUp() override
    {
        if (!kordtest::haveTool("qemu-img"))
            GTEST_SKIP() << "qemu-img is not installed; run scripts/setup.sh (package qemu-utils) to check interop";
    }
    bool streamOptimized() const { return GetParam(); }

    std::string makeDisk()
    {
        const std::string path = temp.file("disk.vmdk");
        zu::P<zu::IFileSystem> fs = zu::newObj<zu::CLocalFileSystem>();
        zu::TBuffer<unsigned char> zeros;
        zeros.setUsedFill(65536, 0);
        zu::P<kord::CVMDKDescriptor> descriptor =
            usualDescriptor(streamOptimized() ? "streamOptimized" : "monolithicSparse", "disk.vmdk");
        kord::createEmptyVMDKSparseExtentFile(fs, zu::CLocalFileSystem::pathToURI(zu::String(path)), streamOptimized(),
                                              grainCount, grainSectors, zeros, descriptor, 20,
                                              zu::TBuffer<unsigned char>());
        return path;
    }

    kordtest::TempDir temp;
};

} // namespace

TEST_P(QemuInteropTest, qemuReadsEmptyDiskOfRightSize)
{
    const std::string disk = makeDisk();
    std::string out;
    ASSERT_EQ(0, kordtest::runCommand("qemu-img info --output=json " + quoted(disk), &out)) << out;
    EXPECT_NE(std::string::npos, out.find("\"virtual-size\": " + std::to_string(capacityBytes))) << out;
    EXPECT_NE(std::string::npos, out.find("\"format\": \"vmdk\"")) << out;
    if (streamOptimized()) {
        EXPECT_NE(std::string::npos, out.find("\"compressed\": true")) << out;
    }
    EXPECT_NE(std::string::npos,
              out.find(std::string("\"create-type\": \"") + (streamOptimized() ? "streamOptimized" : "monolithicSparse")))
        << out;

    EXPECT_EQ(0, kordtest::runCommand("qemu-img check " + quoted(disk), &out)) << out;
    EXPECT_NE(std::string::npos, out.find("No errors were found on the image.")) << out;

    const std::string raw = temp.file("disk.raw");
    ASSERT_EQ(0, kordtest::runCommand("qemu-img convert -O raw " + quoted(disk) + " " + quoted(raw), &out)) << out;
    std::ifstream in(raw, std::ios::binary | std::ios::ate);
    ASSERT_EQ(capacityBytes, static_cast<long long>(in.tellg()));
    std::vector<char> data(static_cast<size_t>(capacityBytes));
    in.seekg(0);
    in.read(data.data(), capacityBytes);
    EXPECT_EQ(data.end(), std::find_if(data.begin(), data.end(), [](char c) { return c != 0; }));
}

TEST_P(QemuInteropTest, vmdkinfoReadsEmptyDisk)
{
    if (!kordtest::haveTool("vmdkinfo"))
        GTEST_SKIP() << "vmdkinfo is not installed; run scripts/setup.sh (package libvmdk-utils) to check interop";
    const std::string disk = makeDisk();
    std::string out;
    ASSERT_EQ(0, kordtest::runCommand("vmdkinfo " + quoted(disk), &out)) << out;
    EXPECT_NE(std::string::npos, out.find(streamOptimized() ? "Stream optimized" : "Monolithic sparse")) << out;
    EXPECT_NE(std::string::npos, out.find("(" + std::to_string(capacityBytes) + " bytes)")) << out;
    EXPECT_NE(std::string::npos, out.find("0x5a3c0e11")) << out;
}

INSTANTIATE_TEST_SUITE_P(Layout, QemuInteropTest, testing::Values(false, true),
                         [](const testing::TestParamInfo<bool>& info) {
                             return std::string(info.param ? "StreamOptimized" : "MonolithicSparse");
                         });
