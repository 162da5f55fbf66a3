// Disks that kord makes and fills are read by qemu-img and vmdkinfo as kord
// wrote them, and disks that qemu makes and fills are read by kord as
// qemu-img reads them and take kord's writes so that qemu reads them back.
// The tools are black boxes; a test is skipped only where one is missing.
#include "DiskTestUtil.h"

#include <fcntl.h>
#include <unistd.h>

#include <random>

using namespace disktest;

namespace {

constexpr int R = zu::IIOStream::accessRead;
constexpr int RW = zu::IIOStream::accessReadWrite;

std::string quoted(const std::string& path) { return "'" + path + "'"; }

std::string run(const std::string& command)
{
    std::string out;
    int status = kordtest::runCommand(command, &out);
    EXPECT_EQ(0, status) << command << "\n" << out;
    return out;
}

// The byte ranges worth comparing in a raw image qemu-img wrote: its data
// segments (holes read as zeros) and every grain the model holds.
std::vector<std::pair<long long, long long>> rangesToCompare(int fd, long long size, const Mirror& mirror)
{
    std::vector<std::pair<long long, long long>> out;
    for (off_t pos = 0;;) {
        off_t data = ::lseek(fd, pos, SEEK_DATA);
        if (data < 0) break;
        off_t hole = ::lseek(fd, data, SEEK_HOLE);
        out.emplace_back(data, hole - data);
        pos = hole;
    }
    for (long long grain : mirror.touchedGrains())
        out.emplace_back(grain * grainBytes, std::min(grainBytes, size - grain * grainBytes));
    return out;
}

// qemu-img convert -O raw gives exactly the model's bytes.
void expectQemuReads(const std::string& image, const Mirror& mirror, const std::string& raw)
{
    run("qemu-img convert -O raw " + quoted(image) + " " + quoted(raw));
    int fd = ::open(raw.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0) << raw;
    const long long size = ::lseek(fd, 0, SEEK_END);
    EXPECT_EQ(mirror.size(), size) << image;
    for (const auto& range : rangesToCompare(fd, size, mirror)) {
        for (long long done = 0; done < range.second;) {
            long long n = std::min(range.second - done, 4LL << 20);
            Bytes bytes(static_cast<size_t>(n));
            ASSERT_EQ(n, ::pread(fd, bytes.data(), static_cast<size_t>(n), range.first + done));
            ASSERT_TRUE(bytes == mirror.read(range.first + done, n)) << image << " at " << range.first + done;
            done += n;
        }
    }
    ::close(fd);
    ::unlink(raw.c_str());
}

// kord reads every byte of the disk as the model says.
void expectKordReads(zu::IFileSystem* fs, const std::string& image, const Mirror& mirror)
{
    zu::P<CVMDKDisk> disk = openDisk(fs, fileURI(image), R);
    ASSERT_EQ(mirror.size(), disk->getDiskSizeBytes());
    const long long chunk = 1 << 20;
    for (long long pos = 0; pos < mirror.size(); pos += chunk) {
        long long n = std::min(chunk, mirror.size() - pos);
        ASSERT_TRUE(readAt(*disk, pos, n) == mirror.read(pos, n)) << image << " at " << pos;
    }
}

// Writes through qemu-io, mirrored into the model.
struct QemuWrite {
    int pattern;
    long long offset;
    long long length;
};

void qemuWrite(const std::string& image, Mirror& mirror, const std::vector<QemuWrite>& writes)
{
    std::string command = "qemu-io -f vmdk";
    for (const QemuWrite& w : writes) {
        command += " -c 'write -P " + std::to_string(w.pattern) + " " + std::to_string(w.offset) + " " +
                   std::to_string(w.length) + "'";
        mirror.write(w.offset, Bytes(static_cast<size_t>(w.length), static_cast<unsigned char>(w.pattern)));
    }
    run(command + " " + quoted(image));
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

void expectQemuFindsNoErrors(const std::string& image)
{
    std::string out;
    int status = kordtest::runCommand("qemu-img check " + quoted(image), &out);
    // Some qemu versions cannot check vmdk at all: that reports nothing wrong.
    if (out.find("does not support checks") != std::string::npos) return;
    EXPECT_EQ(0, status) << out;
    EXPECT_NE(std::string::npos, out.find("No errors were found on the image.")) << out;
}

class DiskInteropTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (!kordtest::haveTool("qemu-img"))
            GTEST_SKIP() << "qemu-img is not installed (package qemu-utils): interop not checked";
    }
    std::string path(const std::string& name) const { return temp.file(name); }

    kordtest::TempDir temp;
    zu::P<zu::IFileSystem> fs = zu::newObj<zu::CLocalFileSystem>();
};

class KordDiskInteropTest : public DiskInteropTest, public testing::WithParamInterface<std::string> {};

TEST_P(KordDiskInteropTest, qemuAndVmdkinfoReadWhatKordWrote)
{
    const std::string type = GetParam();
    // Split disks get three extents; every capacity is a whole number of grains.
    const long long capacity = (type == "twoGbMaxExtentSparse" ? 2 * splitSectors : 0) + 400 * grainSectors;
    Mirror mirror(capacity * sector);
    const std::string parent = path(type + ".vmdk");
    const std::string child = path(type + "-delta.vmdk");
    kordFill(*CVMDKDisk::create(fs, fileURI(parent), params(type, capacity)), mirror, 1);
    const Mirror parentMirror = mirror;
    kordFill(*CVMDKDisk::create(fs, fileURI(child), params(type, 0, "", fileURI(parent))), mirror, 2);
    EXPECT_EQ(type == "twoGbMaxExtentSparse", std::filesystem::exists(path(type + "-delta-s003.vmdk")));

    for (const std::string& image : {parent, child}) {
        SCOPED_TRACE(image);
        expectQemuReads(image, image == parent ? parentMirror : mirror, path("out.raw"));
        expectQemuFindsNoErrors(image);
        if (!kordtest::haveTool("vmdkinfo")) {
            std::cout << "vmdkinfo is not installed (package libvmdk-utils): not checked\n";
            continue;
        }
        std::string out = run("vmdkinfo " + quoted(image));
        EXPECT_NE(std::string::npos, out.find("(" + std::to_string(capacity * sector) + " bytes)")) << out;
        const std::string extents = type == "twoGbMaxExtentSparse" ? "3" : "1";
        EXPECT_NE(std::string::npos, out.find("Number of extents:\t\t" + extents + "\n")) << out;
    }
}

INSTANTIATE_TEST_SUITE_P(Kord, KordDiskInteropTest,
                         testing::Values("monolithicSparse", "twoGbMaxExtentSparse", "streamOptimized"),
                         [](const testing::TestParamInfo<std::string>& info) { return info.param; });

TEST_F(DiskInteropTest, kordReadsAndWritesQemuDisks)
{
    if (!kordtest::haveTool("qemu-io")) GTEST_SKIP() << "qemu-io is not installed (package qemu-utils)";
    const std::string parent = path("q.vmdk");
    const std::string child = path("qc.vmdk");
    Mirror mirror(32 << 20);
    run("qemu-img create -f vmdk -o subformat=monolithicSparse " + quoted(parent) + " 32M");
    qemuWrite(parent, mirror, {{0x11, 0, 100 << 10}, {0x22, 1 << 20, 4096}, {0x33, 20000 << 10, 64 << 10},
                               {0x44, (32 << 20) - 512, 512}});
    expectKordReads(fs, parent, mirror);
    {
        zu::P<CVMDKDisk> disk = openDisk(fs, fileURI(parent), RW);
        kordFill(*disk, mirror, 3);
    }
    expectQemuReads(parent, mirror, path("out.raw"));
    expectQemuFindsNoErrors(parent);

    // A child qemu makes over that parent, written by qemu and then by kord.
    run("qemu-img create -f vmdk -b q.vmdk -F vmdk " + quoted(child));
    qemuWrite(child, mirror, {{0x55, 50 << 10, 100 << 10}, {0x66, 3 << 20, 512}, {0x77, (32 << 20) - 4096, 4096}});
    expectKordReads(fs, child, mirror);
    {
        zu::P<CVMDKDisk> disk = openDisk(fs, fileURI(child), RW);
        kordFill(*disk, mirror, 4);
    }
    expectQemuReads(child, mirror, path("out.raw"));
    expectQemuFindsNoErrors(child);
}

TEST_F(DiskInteropTest, kordReadsQemuSplitDiskAndWritesOnlyWhereItsDescriptorFits)
{
    if (!kordtest::haveTool("qemu-io")) GTEST_SKIP() << "qemu-io is not installed (package qemu-utils)";
    std::filesystem::create_directory(path("split"));
    const std::string image = path("split/qs.vmdk");
    const long long twoGiB = 2LL << 30;
    Mirror mirror(3LL << 30);
    run("qemu-img create -f vmdk -o subformat=twoGbMaxExtentSparse " + quoted(image) + " 3G");

    // A new qemu descriptor file is exactly as long as its text: no room for
    // kord's content-ID renewal, so the first write fails before any change.
    const auto before = snapshot(path("split"));
    {
        zu::P<CVMDKDisk> disk = openDisk(fs, fileURI(image), RW);
        zu::CError e = kordtest::expectThrows<zu::CError>([&] { writeAt(*disk, 0, Bytes(10, 1)); });
        EXPECT_EQ(0u, kordtest::msg(e).find("Internal error: actual VMDK descriptor size exceeds target size"))
            << kordtest::msg(e);
    }
    EXPECT_TRUE(before == snapshot(path("split")));

    // Extents of 4,194,304 sectors, read across their boundary. qemu's own
    // first write pads the descriptor file to a sector, which then has room.
    qemuWrite(image, mirror, {{0x11, 0, 100 << 10}, {0x22, twoGiB - (64 << 10), 128 << 10},
                              {0x33, (3LL << 30) - 512, 512}});
    expectKordReads(fs, image, mirror);
    expectQemuReads(image, mirror, path("out.raw"));
    kordFill(*openDisk(fs, fileURI(image), RW), mirror, 5);
    expectQemuReads(image, mirror, path("out.raw"));
    expectQemuFindsNoErrors(image);
}

} // namespace
