// Random writes of random lengths at random places, over every kind of disk
// the library makes: each create type, plain and encrypted, on its own and
// as a delta disk over a parent that was written first. The disk must agree
// with a plain model after every flush, and after reopening it for more
// writes and then for reading; and the checker must find nothing wrong.
#include "DiskTestUtil.h"


#include <random>
#include <tuple>

using namespace disktest;

namespace {

using MatrixParam = std::tuple<std::string, bool, bool>; // create type, encrypted, delta

class DiskMatrixTest : public testing::TestWithParam<MatrixParam> {
protected:
    std::string type() const { return std::get<0>(GetParam()); }
    std::string pass() const { return std::get<1>(GetParam()) ? password : ""; }
    bool delta() const { return std::get<2>(GetParam()); }

    // Split disks get two extents; the others a few hundred grains and a
    // partial last grain.
    long long capacitySectors() const
    {
        return (type() == "twoGbMaxExtentSparse" ? splitSectors : 0) + 300 * grainSectors + 37;
    }

    // Writes that often start near the places where requests are split: the
    // extent boundary, grain boundaries and the disk's end.
    void randomWrites(CVMDKDisk& disk, Mirror& mirror, int count, bool verifyOnFlush)
    {
        const long long size = disk.getDiskSizeBytes();
        const long long hotSpots[] = {splitSectors * sector, size, 5 * grainBytes, 0};
        const auto sectors = static_cast<unsigned>(size / sector);
        for (int i = 1; i <= count; ++i) {
            const long long length = 1 + static_cast<long long>(random() % (3 * grainBytes)), where = random() % 4;
            const long long anySector = static_cast<long long>(random() % sectors) * sector;
            long long pos = where == 0   ? anySector
                            : where == 1 ? anySector / grainBytes * grainBytes
                                         : hotSpots[random() % 4] - static_cast<long long>(random() % (2 * grainBytes));
            pos = std::max(0LL, std::min(pos, size - 1));
            // Now and then whole grains of zeros: over a parent's grain they
            // must be stored, elsewhere they may stay unallocated.
            Bytes data;
            if (random() % 8 == 0) {
                pos = std::min(pos / grainBytes * grainBytes, (size / grainBytes - 2) * grainBytes);
                data.assign(static_cast<size_t>(grainBytes * (1 + random() % 2)), 0);
            } else {
                data = kordtest::pattern(static_cast<size_t>(std::min(length, size - pos)), random());
            }
            writeAt(disk, pos, data);
            mirror.write(pos, data);
            if (i % 8 == 0) {
                disk.flushChanges();
                if (verifyOnFlush) expectMatches(disk, mirror, "after flush " + std::to_string(i));
            }
        }
    }

    kordtest::TempDir temp;
    zu::P<zu::IFileSystem> fs = zu::newObj<zu::CLocalFileSystem>();
    std::mt19937 random{12345};
};

TEST_P(DiskMatrixTest, randomWritesMatchModelAfterFlushAndReopen)
{
    const zu::CURI child = fileURI(temp.file("child.vmdk"));
    Mirror mirror(capacitySectors() * sector);
    CVMDKDisk::CCreateParams p = params(type(), capacitySectors(), pass());
    if (delta()) {
        const zu::CURI parent = fileURI(temp.file("base/parent.vmdk"));
        std::filesystem::create_directory(temp.file("base"));
        randomWrites(*CVMDKDisk::create(fs, parent, p), mirror, 24, false);
        p = params(type(), 0, pass(), parent);
    }
    {
        zu::P<CVMDKDisk> disk = CVMDKDisk::create(fs, child, p);
        ASSERT_EQ(!pass().empty(), disk->isEncrypted());
        ASSERT_EQ(delta(), !disk->getParentURI().isEmpty());
        if (delta()) expectMatches(*disk, mirror, "through the new child");
        randomWrites(*disk, mirror, 48, true);
    }
    randomWrites(*openDisk(fs, child, RW, pass()), mirror, 16, true);
    zu::P<CVMDKDisk> reopened = openDisk(fs, child, R, pass());
    expectMatches(*reopened, mirror, "after reopening");
    EXPECT_TRUE(readAt(*reopened, mirror.size() - 700, 700) == mirror.read(mirror.size() - 700, 700));
    reopened = nullptr;
    EXPECT_TRUE(findingKinds(fs, child, pass()).empty());
}

INSTANTIATE_TEST_SUITE_P(Disks, DiskMatrixTest,
                         testing::Combine(testing::Values("monolithicSparse", "twoGbMaxExtentSparse",
                                                          "streamOptimized"),
                                          testing::Bool(), testing::Bool()),
                         [](const testing::TestParamInfo<MatrixParam>& info) {
                             return std::get<0>(info.param) + (std::get<1>(info.param) ? "_encrypted" : "_plain") +
                                    (std::get<2>(info.param) ? "_delta" : "_single");
                         });

} // namespace
