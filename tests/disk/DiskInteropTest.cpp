// Disks that kord makes and fills are read by qemu-img and vmdkinfo as kord
// wrote them, and disks that qemu makes and fills are read and checked by
// kord as qemu-img reads them, and take kord's writes so that qemu reads
// them back. The tools are black boxes; a test is skipped only where one is
// missing.
#include "DiskTestUtil.h"

#include <random>

using namespace disktest;

namespace {

class DiskInteropTest : public kordtest::QemuTest {
protected:
    // qemu-img sees the disk's size and exactly the model's bytes (the model
    // is written into a sparse raw image for qemu-img compare), and finds no
    // error.
    void expectQemuReads(const std::string& image, const Mirror& mirror)
    {
        EXPECT_NE(std::string::npos,
                  sh("qemu-img info --output=json '" + image + "'").find("\"virtual-size\": " + std::to_string(mirror.size())));
        sh("rm -f out.raw && truncate -s " + std::to_string(mirror.size()) + " out.raw");
        std::fstream out(path("out.raw"), std::ios::in | std::ios::out | std::ios::binary);
        for (long long grain : mirror.touchedGrains()) {
            const Bytes bytes = mirror.read(grain * grainBytes, std::min(grainBytes, mirror.size() - grain * grainBytes));
            out.seekp(grain * grainBytes);
            out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        }
        out.close();
        sh("qemu-img compare -f raw -F vmdk out.raw '" + image + "'");
        std::string check;
        const int status = kordtest::runCommand("cd '" + temp.path() + "' && qemu-img check '" + image + "'", &check);
        // Some qemu versions cannot check vmdk at all: that reports nothing wrong.
        if (check.find("does not support checks") != std::string::npos) return;
        EXPECT_EQ(0, status) << check;
        EXPECT_NE(std::string::npos, check.find("No errors were found on the image.")) << check;
    }
};

// Writes through qemu-io of {pattern byte, offset, length}, mirrored into
// the model.
using QemuWrites = std::vector<std::tuple<int, long long, long long>>;
std::string qemuWrite(const std::string& image, Mirror& mirror, const QemuWrites& w)
{
    std::string command = "qemu-io -f vmdk";
    for (const auto& [pattern, offset, length] : w) {
        command += " -c 'write -P " + std::to_string(pattern) + " " + std::to_string(offset) + " " +
                   std::to_string(length) + "'";
        mirror.write(offset, Bytes(static_cast<size_t>(length), static_cast<unsigned char>(pattern)));
    }
    return command + " '" + image + "'";
}

// Pieces of random length (partial grains among them), some random and some
// compressible, at a stride over a few hundred grains, across every extent
// boundary and at the disk's end.
void kordFill(CVMDKDisk& disk, Mirror& mirror, unsigned seed)
{
    std::mt19937 random(seed);
    const long long size = disk.getDiskSizeBytes();
    std::vector<long long> spots;
    for (int i = 0; i < 150; ++i) spots.push_back(i * 2 * grainBytes + random() % grainBytes);
    for (long long boundary = splitSectors * sector; boundary < size; boundary += splitSectors * sector)
        spots.push_back(boundary - 1 - random() % 5000);
    spots.push_back(size - 3000);
    for (long long pos : spots) {
        long long length = std::min<long long>(1 + random() % (3 * grainBytes / 2), size - pos);
        Bytes data = random() % 2 ? kordtest::pattern(static_cast<size_t>(length), random())
                                  : Bytes(static_cast<size_t>(length), static_cast<unsigned char>(random()));
        writeAt(disk, pos, data);
        mirror.write(pos, data);
    }
}

class KordDiskInteropTest : public DiskInteropTest, public testing::WithParamInterface<std::string> {};

TEST_P(KordDiskInteropTest, qemuAndVmdkinfoReadWhatKordWrote)
{
    const std::string type = GetParam();
    // Split disks get three extents; every capacity is a whole number of grains.
    const long long capacity = (type == "twoGbMaxExtentSparse" ? 2 * splitSectors : 0) + 400 * grainSectors;
    Mirror mirror(capacity * sector);
    const std::string parent = type + ".vmdk", child = type + "-delta.vmdk";
    kordFill(*CVMDKDisk::create(fs, fileURI(path(parent)), params(type, capacity)), mirror, 1);
    const Mirror parentMirror = mirror;
    kordFill(*CVMDKDisk::create(fs, fileURI(path(child)), params(type, 0, "", fileURI(path(parent)))), mirror, 2);

    for (const std::string& image : {parent, child}) {
        SCOPED_TRACE(image);
        expectQemuReads(image, image == parent ? parentMirror : mirror);
        if (!kordtest::haveTool("vmdkinfo")) {
            std::cout << "vmdkinfo is not installed (package libvmdk-utils): not checked\n";
            continue;
        }
        const std::string out = sh("vmdkinfo '" + image + "'");
        EXPECT_NE(std::string::npos, out.find("(" + std::to_string(capacity * sector) + " bytes)")) << out;
        EXPECT_NE(std::string::npos, out.find(std::string("Number of extents:\t\t") + (type == "twoGbMaxExtentSparse" ? "3" : "1"))) << out;
    }
}

INSTANTIATE_TEST_SUITE_P(Kord, KordDiskInteropTest,
                         testing::Values("monolithicSparse", "twoGbMaxExtentSparse", "streamOptimized"),
                         [](const testing::TestParamInfo<std::string>& info) { return info.param; });

// qemu makes and writes a sparse disk, a child over it, and a split disk;
// kord reads and checks each, then writes into it, and qemu reads it back.
TEST_F(DiskInteropTest, kordReadsAndWritesQemuDisks)
{
    // The split disk's extents are 4,194,304 sectors long: read across their boundary.
    Mirror mirror(32 << 20), splitMirror(3LL << 30);

    // (A descriptor file with no room to grow, as qemu-img makes them, is
    // replaced by a longer one: the foreign disk tests.)
    const std::vector<std::tuple<std::string, std::string, Mirror*, QemuWrites>> disks = {
        {"q.vmdk", "-o subformat=monolithicSparse q.vmdk 32M", &mirror,
         {{0x11, 0, 100 << 10}, {0x22, 1 << 20, 4096}, {0x33, 20000 << 10, 64 << 10}, {0x44, (32 << 20) - 512, 512}}},
        {"qc.vmdk", "-b q.vmdk -F vmdk qc.vmdk", &mirror,
         {{0x55, 50 << 10, 100 << 10}, {0x66, 3 << 20, 512}, {0x77, (32 << 20) - 4096, 4096}}},
        {"qs.vmdk", "-o subformat=twoGbMaxExtentSparse qs.vmdk 3G", &splitMirror,
         {{0x11, 0, 100 << 10}, {0x22, (2LL << 30) - (64 << 10), 128 << 10}, {0x33, (3LL << 30) - 512, 512}}}};
    unsigned seed = 3;
    for (const auto& [name, createArgs, model, writes] : disks) {
        SCOPED_TRACE(name);
        sh("qemu-img create -f vmdk " + createArgs);
        sh(qemuWrite(name, *model, writes));
        // kord reads the disk as the model says, and its checker finds nothing wrong.
        expectMatches(*openDisk(fs, fileURI(path(name)), R), *model, name);
        EXPECT_TRUE(findingKinds(fs, fileURI(path(name))).empty());
        kordFill(*openDisk(fs, fileURI(path(name)), RW), *model, seed++);
        expectQemuReads(name, *model);
    }
}

} // namespace
