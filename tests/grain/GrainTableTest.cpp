// Grain tables and their cache: entries and slot sizes read and written back
// to the right sectors (both copies, only where there are copies), and the
// cache's eviction, which never drops a table with unflushed changes.
#include "common/ExtentTestUtil.h"

#include "grain/CVMDKGrainTable.h"
#include "grain/CVMDKGrainTableCache.h"

using namespace kordtest;

namespace {

constexpr long long grainSectors = 16;
// Sectors of the hand-made image: grain table, its redundant copy, slot-size table.
constexpr long long tableAt = 2, redundantAt = 10, slotsAt = 20;

// The cache only compares directory pointers; these are never dereferenced.
kord::CVMDKGrainDirectory* const dirA = reinterpret_cast<kord::CVMDKGrainDirectory*>(0x1000);
kord::CVMDKGrainDirectory* const dirB = reinterpret_cast<kord::CVMDKGrainDirectory*>(0x2000);

class GrainTableTest : public FileSystemTest {
protected:
    // A 64-sector file: table entry 1 = 100 (in both copies), slot-size
    // entries 0 and 1 = 7 and 9; sectors 32.. are free for the cache's tables.
    void makeImage()
    {
        Bytes image(64 * 512, 0);
        zu::storeLE32(&image[tableAt * 512 + 4], 100);
        zu::storeLE32(&image[redundantAt * 512 + 4], 100);
        zu::storeLE16(&image[slotsAt * 512], 7);
        zu::storeLE16(&image[slotsAt * 512 + 2], 9);
        writeAll(fs, uri("t.bin"), image);
        stream = kord::openVMDKFileStream(fs, uri("t.bin"), rw);
    }
    zu::P<kord::CVMDKGrainTable> table(long long redundant, long long slots, int access = rw, long long at = tableAt)
    {
        return zu::newObj<kord::CVMDKGrainTable>(stream, access, grainSectors, at, redundant, slots, 512);
    }
    // Table n of the cache cases, at sector 32 + 4 * n.
    zu::P<kord::CVMDKGrainTable> spare(long long n) { return table(0, 0, rw, 32 + 4 * n); }
    Bytes fileNow()
    {
        stream->flush();
        return readAll(fs, uri("t.bin"));
    }
    zu::P<zu::IIOStream> stream;
};

std::pair<long long, long long> info(kord::CVMDKGrainTable& table, long long index)
{
    long long pos = -1, slot = -1;
    table.getGrainInfo(index, pos, slot);
    return {pos, slot};
}

} // namespace

TEST_P(GrainTableTest, changesReachBothCopiesAndTheSlotSizeTable)
{
    makeImage();
    {
        zu::P<kord::CVMDKGrainTable> t = table(redundantAt, slotsAt);
        EXPECT_EQ(std::make_pair(0LL, 0LL), info(*t, 0)) << "no data: slot 0 whatever the slot table holds";
        EXPECT_EQ(std::make_pair(100LL, 9LL), info(*t, 1));
        t->setGrainInfo(1, 100, 9);
        EXPECT_FALSE(t->hasUnflushedChanges()) << "unchanged values must not make the table dirty";
        t->setGrainInfo(5, 0x40, 18);
        t->setGrainInfo(511, 300, 17);
        EXPECT_TRUE(t->flushSlotSizesToStream());
        EXPECT_TRUE(t->flushEntriesToStream());
        EXPECT_FALSE(t->flushEntriesToStream() || t->hasUnflushedChanges());
        t->setGrainInfo(6, 400, 3); // never written: a table does not write itself
    }
    Bytes file = fileNow();
    EXPECT_EQ(slice(file, tableAt * 512, 2048), slice(file, redundantAt * 512, 2048));
    EXPECT_EQ(0x40u, fileLE32(file, tableAt * 512 + 5 * 4));
    EXPECT_EQ(0u, fileLE32(file, tableAt * 512 + 6 * 4));
    EXPECT_EQ(300u, fileLE32(file, tableAt * 512 + 511 * 4));
    EXPECT_EQ(18, zu::loadLE16(&file[slotsAt * 512 + 10]));
    EXPECT_EQ(0, zu::loadLE16(&file[slotsAt * 512 + 12]));
    EXPECT_EQ(17, zu::loadLE16(&file[slotsAt * 512 + 1022]));

    // Without a redundant copy or slot-size table only the table is written.
    makeImage();
    Bytes expected = fileNow();
    zu::storeLE32(&expected[tableAt * 512 + 8], 500);
    zu::P<kord::CVMDKGrainTable> t = table(0, 0);
    EXPECT_EQ(std::make_pair(100LL, grainSectors), info(*t, 1));
    t->setGrainInfo(2, 500, grainSectors);
    t->flushChangesToStream();
    EXPECT_EQ(expected, fileNow());
    // (A stale redundant copy repaired by the next flush is checked through
    // whole disks, with the checker.)
}

TEST_P(GrainTableTest, cacheKeepsTablesWithChangesAndFlushesSlotSizesFirst)
{
    makeImage();
    kord::CVMDKGrainTableCache cache(1);
    const auto changed = [](zu::P<kord::CVMDKGrainTable> t, long long index, long long pos, long long slot) {
        t->setGrainInfo(index, pos, slot);
        return t;
    };
    cache.setCachedTable(dirA, 1, changed(spare(1), 3, 77, grainSectors));
    cache.setCachedTable(dirA, 2, spare(2)); // the clean table goes, the changed one stays
    EXPECT_TRUE(cache.getCachedTable(dirA, 1) && !cache.getCachedTable(dirA, 2));
    cache.setCachedTable(dirA, 3, changed(spare(3), 4, 88, grainSectors));
    EXPECT_EQ(2, cache.getCachedTableCount());
    EXPECT_TRUE(cache.isOverLimit());
    EXPECT_EQ(0u, fileLE32(fileNow(), 36 * 512 + 3 * 4)) << "nothing is written behind the extent's back";

    // Slot-size tables first, the barrier, then the grain tables; a
    // directory without slot-size changes needs no barrier in between.
    zu::P<kord::CVMDKGrainTable> slotted = changed(table(0, slotsAt, rw, 60), 0, 99, 5);
    cache.setCachedTable(dirB, 0, slotted);
    std::string order;
    const std::function<void()> barrier = [&] {
        order += fileNow()[slotsAt * 512] == 5 && fileLE32(fileNow(), 60 * 512) == 0 ? "slots " : "late ";
    };
    EXPECT_TRUE(cache.flushCachedTablesFromDirectoryToStream(dirB, barrier));
    EXPECT_TRUE(cache.flushCachedTablesFromDirectoryToStream(dirA, barrier));
    EXPECT_FALSE(cache.flushCachedTablesFromDirectoryToStream(dirA, barrier));
    EXPECT_EQ("slots ", order);
    const Bytes file = fileNow();
    EXPECT_EQ(99u, fileLE32(file, 60 * 512));
    EXPECT_EQ(77u, fileLE32(file, 36 * 512 + 3 * 4));
    EXPECT_EQ(88u, fileLE32(file, 44 * 512 + 4 * 4));
    cache.enforceLimit();
    EXPECT_EQ(1, cache.getCachedTableCount());

    cache.removeCachedTablesFromDirectory(dirA);
    EXPECT_FALSE(cache.getCachedTable(dirA, 1));
    EXPECT_EQ(slotted.get(), cache.getCachedTable(dirB, 0).get());
}

KORD_INSTANTIATE_FS(GrainTableTest);
