// Grain tables and their cache: entries and slot sizes read and written back
// to the right sectors (both copies), the argument checks of setGrainInfo,
// and the cache's eviction order and its effect on unflushed tables.
#include "common/ExtentTestUtil.h"

#include "grain/CVMDKGrainTable.h"
#include "grain/CVMDKGrainTableCache.h"

using kordtest::Bytes;
using kordtest::expectThrows;
using kordtest::fileLE32;
using kordtest::msg;
using kordtest::readAll;

namespace {

constexpr int rw = zu::IIOStream::accessReadWrite;
constexpr long long grainSectors = 16;
// Sectors of the hand-made image: grain table, its redundant copy, slot-size table.
constexpr long long tableAt = 2, redundantAt = 10, slotsAt = 20;

class GrainTableTest : public kordtest::FileSystemTest {
protected:
    // A 32-sector file: table entry 1 = 100, slot-size entries 0 and 1 = 7 and 9.
    zu::P<zu::IIOStream> makeImage()
    {
        Bytes image(32 * 512, 0);
        zu::storeLE32(&image[tableAt * 512 + 4], 100);
        zu::storeLE16(&image[slotsAt * 512], 7);
        zu::storeLE16(&image[slotsAt * 512 + 2], 9);
        kordtest::writeAll(fs, uri("t.bin"), image);
        return kord::openVMDKFileStream(fs, uri("t.bin"), rw);
    }
    zu::P<kord::CVMDKGrainTable> table(zu::IIOStream* stream, long long redundant, long long slots, int access = rw)
    {
        return zu::newObj<kord::CVMDKGrainTable>(stream, access, grainSectors, tableAt, redundant, slots, 512);
    }
    static void expectInfo(kord::CVMDKGrainTable& t, long long index, long long pos, long long slot)
    {
        long long p = -1, s = -1;
        t.getGrainInfo(index, p, s);
        EXPECT_EQ(pos, p) << "grain " << index;
        EXPECT_EQ(slot, s) << "grain " << index;
    }
};

} // namespace

TEST_P(GrainTableTest, changesReachBothCopiesAndTheSlotSizeTable)
{
    zu::P<zu::IIOStream> stream = makeImage();
    {
        zu::P<kord::CVMDKGrainTable> t = table(stream, redundantAt, slotsAt);
        expectInfo(*t, 0, 0, 0); // no data: slot 0 whatever the slot table holds
        expectInfo(*t, 1, 100, 9);
        t->setGrainInfo(1, 100, 9);
        EXPECT_FALSE(t->hasUnflushedChanges()) << "unchanged values must not make the table dirty";
        t->setGrainInfo(5, 0x100000040LL, 18); // the 32-bit entry keeps the low bits
        t->setGrainInfo(511, 300, 17);
        EXPECT_TRUE(t->hasUnflushedChanges());
        t->flushChangesToStream();
        EXPECT_FALSE(t->hasUnflushedChanges());
        t->setGrainInfo(6, 400, 3); // written by the destructor
    }
    stream->close();
    Bytes file = readAll(fs, uri("t.bin"));
    EXPECT_EQ(kordtest::slice(file, tableAt * 512, 2048), kordtest::slice(file, redundantAt * 512, 2048));
    EXPECT_EQ(0x40u, fileLE32(file, tableAt * 512 + 5 * 4));
    EXPECT_EQ(400u, fileLE32(file, tableAt * 512 + 6 * 4));
    EXPECT_EQ(300u, fileLE32(file, tableAt * 512 + 511 * 4));
    EXPECT_EQ(18, zu::loadLE16(&file[slotsAt * 512 + 10]));
    EXPECT_EQ(3, zu::loadLE16(&file[slotsAt * 512 + 12]));
    EXPECT_EQ(17, zu::loadLE16(&file[slotsAt * 512 + 1022]));

    // Without a redundant copy or slot-size table only the table is written.
    stream = makeImage();
    {
        zu::P<kord::CVMDKGrainTable> t = table(stream, 0, 0);
        expectInfo(*t, 1, 100, grainSectors);
        t->setGrainInfo(2, 500, grainSectors);
    }
    stream->close();
    file = readAll(fs, uri("t.bin"));
    EXPECT_EQ(500u, fileLE32(file, tableAt * 512 + 8));
    EXPECT_EQ(Bytes(2048, 0), kordtest::slice(file, redundantAt * 512, 2048));
    EXPECT_EQ(7, zu::loadLE16(&file[slotsAt * 512]));
}

TEST_P(GrainTableTest, badSetGrainInfoIsRefusedAndChangesNothing)
{
    zu::P<zu::IIOStream> stream = makeImage();
    zu::P<kord::CVMDKGrainTable> plain = table(stream, 0, 0);
    const std::string get = "Invalid argument passed to 'CVMDKGrainTable::getGrainInfo': ";
    const std::string set = "Invalid argument passed to 'CVMDKGrainTable::setGrainInfo': ";
    long long p, s;
    EXPECT_EQ(get + "Invalid grain index: -1.",
              msg(expectThrows<zu::CInvalidArgError>([&] { plain->getGrainInfo(-1, p, s); })));
    zu::CError e = expectThrows<zu::CInvalidArgError>([&] { plain->setGrainInfo(512, 1, grainSectors); });
    EXPECT_EQ(set + "Invalid grain index: 512.", msg(e));
    EXPECT_EQ(uri("t.bin").toString(true), e.getProp("uri"));
    EXPECT_EQ(set + "Invalid grain slot size - it must equal the grain size (slot size: 15, grain size: 16).",
              msg(expectThrows<zu::CInvalidArgError>([&] { plain->setGrainInfo(0, 0, 15); })));

    zu::P<kord::CVMDKGrainTable> slotted = table(stream, 0, slotsAt);
    e = expectThrows<zu::CInvalidArgError>([&] { slotted->setGrainInfo(0, 0, 0); });
    EXPECT_EQ(set + "Invalid grain slot size..", msg(e));
    EXPECT_EQ("0", e.getProp("slotSizeSectors"));
    EXPECT_EQ("16", e.getProp("grainSizeSectors"));

    zu::P<kord::CVMDKGrainTable> readOnly = table(stream, 0, 0, zu::IIOStream::accessRead);
    e = expectThrows<zu::CError>([&] { readOnly->setGrainInfo(0, 200, grainSectors); });
    EXPECT_EQ("Internal error: CVMDKGrainTable::setGrainInfo was called, but the table was not opened for writing.",
              msg(e));
    EXPECT_EQ(-1, e.getCode());
    for (kord::CVMDKGrainTable* t : {plain.get(), slotted.get(), readOnly.get()}) {
        EXPECT_FALSE(t->hasUnflushedChanges());
        expectInfo(*t, 0, 0, 0);
    }
}

KORD_INSTANTIATE_FS(GrainTableTest);

namespace {

// The cache only compares directory pointers; these are never dereferenced.
kord::CVMDKGrainDirectory* const dirA = reinterpret_cast<kord::CVMDKGrainDirectory*>(0x1000);
kord::CVMDKGrainDirectory* const dirB = reinterpret_cast<kord::CVMDKGrainDirectory*>(0x2000);

class GrainTableCacheTest : public testing::Test {
protected:
    void SetUp() override
    {
        kordtest::writeAll(fs, fileURI, Bytes(64 * 512, 0));
        stream = kord::openVMDKFileStream(fs, fileURI, rw);
    }
    // A table at sector 4 * n.
    zu::P<kord::CVMDKGrainTable> table(long long n)
    {
        return zu::newObj<kord::CVMDKGrainTable>(stream, rw, grainSectors, 4 * n, 0, 0, 512);
    }
    long long entryOnDisk(long long n, int index)
    {
        stream->flush();
        return fileLE32(readAll(fs, fileURI), 4 * n * 512 + 4 * index);
    }

    zu::P<zu::IFileSystem> fs = zu::newObj<zu::CMemoryFileSystem>();
    zu::CURI fileURI = zu::CLocalFileSystem::pathToURI("/cache/t.bin");
    zu::P<zu::IIOStream> stream;
};

} // namespace

TEST_F(GrainTableCacheTest, evictsTheLeastRecentlyUsedTable)
{
    kord::CVMDKGrainTableCache cache(2);
    cache.setCachedTable(dirA, 0, table(0));
    cache.setCachedTable(dirA, 1, table(1));
    cache.setCachedTable(dirA, 2, table(2));
    EXPECT_FALSE(cache.getCachedTable(dirA, 0));
    EXPECT_TRUE(cache.getCachedTable(dirA, 1) && cache.getCachedTable(dirA, 2));

    kord::CVMDKGrainTableCache used(2);
    used.setCachedTable(dirA, 0, table(0));
    used.setCachedTable(dirA, 1, table(1));
    EXPECT_TRUE(used.getCachedTable(dirA, 0)); // a hit makes 0 the most recent
    used.setCachedTable(dirA, 2, table(2));
    EXPECT_FALSE(used.getCachedTable(dirA, 1));
    EXPECT_TRUE(used.getCachedTable(dirA, 0) && used.getCachedTable(dirA, 2));
}

TEST_F(GrainTableCacheTest, limitIsEnforcedOnlyForNewKeysAndWhenSwitchedOn)
{
    kord::CVMDKGrainTableCache cache(2);
    cache.setCachedTable(dirA, 0, table(0));
    cache.setCachedTable(dirA, 1, table(1));
    zu::P<kord::CVMDKGrainTable> replacement = table(5);
    cache.setCachedTable(dirA, 0, replacement);
    EXPECT_EQ(2, cache.getCachedTableCount());
    EXPECT_EQ(replacement.get(), cache.getCachedTable(dirA, 0).get());

    cache.setAutoEnforceLimit(false);
    cache.setCachedTable(dirA, 2, table(2));
    cache.setCachedTable(dirA, 3, table(3));
    EXPECT_EQ(4, cache.getCachedTableCount());
    cache.setCachedTable(dirA, 1, table(6)); // 1 is now the most recent, 0 the least
    cache.setAutoEnforceLimit(true);
    EXPECT_EQ(2, cache.getCachedTableCount());
    EXPECT_TRUE(cache.getCachedTable(dirA, 1) && cache.getCachedTable(dirA, 3));
}

TEST_F(GrainTableCacheTest, evictedDirtyTableIsWrittenWhenItsLastReferenceGoes)
{
    kord::CVMDKGrainTableCache cache(1);
    {
        zu::P<kord::CVMDKGrainTable> t = table(1);
        t->setGrainInfo(3, 77, grainSectors);
        cache.setCachedTable(dirA, 1, t);
    }
    zu::P<kord::CVMDKGrainTable> held = table(2);
    held->setGrainInfo(4, 88, grainSectors);
    cache.setCachedTable(dirA, 2, held);
    EXPECT_EQ(77, entryOnDisk(1, 3)) << "evicted table referenced nowhere else must write itself";
    cache.setCachedTable(dirA, 3, table(3));
    EXPECT_EQ(0, entryOnDisk(2, 4)) << "evicted table still referenced must wait for its holder";
    held = nullptr;
    EXPECT_EQ(88, entryOnDisk(2, 4));
}

TEST_F(GrainTableCacheTest, directoryOperationsTouchOnlyThatDirectorysTables)
{
    kord::CVMDKGrainTableCache cache(10);
    zu::P<kord::CVMDKGrainTable> a = table(1), b = table(2);
    cache.setCachedTable(dirA, 0, a);
    cache.setCachedTable(dirB, 0, b);
    a->setGrainInfo(0, 11, grainSectors);
    b->setGrainInfo(0, 22, grainSectors);
    cache.flushCachedTablesFromDirectoryToStream(dirA);
    EXPECT_FALSE(a->hasUnflushedChanges());
    EXPECT_TRUE(b->hasUnflushedChanges());

    cache.removeCachedTablesFromDirectory(dirA);
    EXPECT_FALSE(cache.getCachedTable(dirA, 0));
    EXPECT_EQ(b.get(), cache.getCachedTable(dirB, 0).get());
    EXPECT_EQ(1, cache.getCachedTableCount());
}
