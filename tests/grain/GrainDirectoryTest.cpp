// The grain directory of real extent files: tables loaded in aligned batches
// of 32 (without losing tables that are cached with unwritten changes), and
// the slot-size directory probe, which honours only a slot-size directory
// where our layout puts it.
#include "common/ExtentTestUtil.h"

#include "format/VMDKMarker.h"

using kordtest::Bytes;
using kordtest::expectThrows;
using kordtest::msg;

namespace {

class GrainDirectoryTest : public kordtest::FileSystemTest {
protected:
    zu::CURI file() const { return uri("extent.vmdk"); }
    void create(bool streamOptimized, long long grainCount, long long grainSectors)
    {
        fs->deleteFile(file(), true);
        kordtest::createExtent(fs, file(), {streamOptimized, false, ""}, grainCount, grainSectors);
    }
    zu::P<kord::CVMDKSparseExtentFile> open(int cacheLimit = kord::CVMDKGrainTableCache::defaultLimit)
    {
        setup.cache = zu::newObj<kord::CVMDKGrainTableCache>(cacheLimit);
        return setup.open(fs, file());
    }
    kordtest::ExtentSetup setup;
};

} // namespace

TEST_P(GrainDirectoryTest, tablesLoadInAlignedBatchesOf32)
{
    create(false, 70 * 512 - 100, 1); // 70 tables, the last one partly used
    zu::P<kord::CVMDKSparseExtentFile> extent = open();
    kord::CVMDKGrainDirectory* directory = extent->getGrainDirectory();
    EXPECT_EQ(70, directory->getGrainTableCount());
    EXPECT_EQ(0, setup.cache->getCachedTableCount());

    directory->getGrainTable(33);
    EXPECT_EQ(32, setup.cache->getCachedTableCount());
    EXPECT_TRUE(setup.cache->getCachedTable(directory, 32) && setup.cache->getCachedTable(directory, 63));
    EXPECT_FALSE(setup.cache->getCachedTable(directory, 31));
    directory->getGrainTable(69);
    EXPECT_EQ(38, setup.cache->getCachedTableCount()) << "the last batch ends with the directory";

    const std::string prefix = "Invalid argument passed to 'CVMDKGrainDirectory::getGrainTable': invalid table index: ";
    EXPECT_EQ(prefix + "-1.", msg(expectThrows<zu::CInvalidArgError>([&] { directory->getGrainTable(-1); })));
    EXPECT_EQ(prefix + "70.", msg(expectThrows<zu::CInvalidArgError>([&] { directory->getGrainTable(70); })));

    extent = nullptr;
    EXPECT_EQ(0, setup.cache->getCachedTableCount()) << "a closed directory leaves no tables in a shared cache";
}

TEST_P(GrainDirectoryTest, directoryLeavesNoTablesInSharedCacheWhenItsWritesFail)
{
    // A table left in the cache under a dead directory's address would be
    // taken for a table of the next directory made at that address.
    create(false, 100, 16);
    zu::P<kord::CVMDKSparseExtentFile> extent = open();
    Bytes data(512, 1);
    extent->write(data.data(), 512);
    extent->seek(5 * 16 * 512); // stores grain 0: its table is dirty
    extent->read(data.data(), 1);
    extent->getStream()->close();      // every later write fails
    kordtest::LogCapture log;
    extent = nullptr;
    EXPECT_FALSE(log.lines.empty()) << "the failure must be reported";
    EXPECT_EQ(0, setup.cache->getCachedTableCount());
}

TEST_P(GrainDirectoryTest, reloadedBatchKeepsCachedTableWithUnwrittenChanges)
{
    // Table 3 is written to and stays cached (recently used) while other
    // tables of its batch are evicted; loading the batch again must not
    // replace it by the stale copy on disk.
    create(false, 64 * 512, 1);
    zu::P<kord::CVMDKSparseExtentFile> extent = open(40);
    const long long grain3 = 3 * 512 * 512; // first grain of table 3, in bytes
    Bytes data = kordtest::pattern(512, 1);
    extent->seek(grain3);
    extent->write(data.data(), 512);
    unsigned char byte;
    extent->seek(32 * 512 * 512); // loads tables 32..63, evicting most of 0..31; stores grain 3
    extent->read(&byte, 1);
    extent->seek(7 * 512 * 512); // table 7 was evicted: its batch loads again
    extent->read(&byte, 1);

    Bytes back(512);
    extent->seek(grain3);
    extent->read(back.data(), 512);
    EXPECT_EQ(data, back);
    Bytes more = kordtest::pattern(512, 2);
    extent->seek(grain3 + 512);
    extent->write(more.data(), 512);
    extent = nullptr;

    extent = open();
    extent->seek(grain3);
    extent->read(back.data(), 512);
    EXPECT_EQ(data, back) << "a stale table written back loses grains";
    extent->read(back.data(), 512);
    EXPECT_EQ(more, back);
}

TEST_P(GrainDirectoryTest, slotSizeDirectoryIsFoundBehindTheLastTable)
{
    create(true, 1100, 16);
    zu::P<kord::CVMDKSparseExtentFile> extent = open();
    kord::CVMDKGrainDirectory* directory = extent->getGrainDirectory();
    ASSERT_TRUE(directory->getHaveSlotSizeInfo());
    long long markerAt = directory->getSlotSizeDirectoryPosSectors() - 1;
    Bytes image = kordtest::readAll(fs, file());
    long long lastTable = std::max(kordtest::fileLE32(image, extent->getHeader().gdOffset * 512 + 8),
                                   kordtest::fileLE32(image, extent->getHeader().rgdOffset * 512 + 8));
    EXPECT_EQ(lastTable + 4, markerAt);
    EXPECT_TRUE(kord::isVMDKMarker(&image[markerAt * 512], kord::vmdkMarkerSlotSizeDirectory, nullptr));
    EXPECT_EQ(3, directory->getSlotSizeDirectory().getUsed());
    EXPECT_LE(directory->getMetadataEndSectors(), extent->getHeader().overHead);
}

TEST_P(GrainDirectoryTest, slotSizeDirectoryOfWrongSizeIsIgnoredWithWarning)
{
    create(true, 1100, 16);
    long long markerAt = open()->getGrainDirectory()->getSlotSizeDirectoryPosSectors() - 1;
    kordtest::patchFile(fs, file(), markerAt * 512, kordtest::le64(7));
    kordtest::LogCapture log;
    zu::CError e = expectThrows<zu::CError>([&] { open(); });
    EXPECT_EQ("Slot size directory not found in compressed VMDK.", msg(e));
    EXPECT_EQ(-1, e.getCode());
    EXPECT_EQ(file().toString(true), e.getProp("uri"));
    EXPECT_TRUE(log.contains("Found VMDK marker for zuSlotDirectory, but the slot directory size does not match the "
                             "expected value (actual: 7, expected: 1, uri: '" + file().toString(true).toUTF8() +
                             "'). Ignoring the slot directory."))
        << log.all();
}

TEST_P(GrainDirectoryTest, slotSizeDirectoryAmongGrainDataIsIgnored)
{
    // A plain extent whose only grain table is moved into the grain area,
    // followed by a well-formed slot-size directory and table.
    create(false, 100, 16);
    long long overHead, gdOffset;
    {
        zu::P<kord::CVMDKSparseExtentFile> extent = open();
        EXPECT_FALSE(extent->getGrainDirectory()->getHaveSlotSizeInfo());
        overHead = extent->getHeader().overHead;
        gdOffset = extent->getHeader().gdOffset;
    }
    Bytes planted(8 * 512, 0); // table (4 sectors), marker, directory, slot table (2)
    zu::storeLE64(&planted[4 * 512], 1);                             // marker value: directory sectors
    zu::storeLE32(&planted[4 * 512 + 12], kord::vmdkMarkerSlotSizeDirectory);
    zu::storeLE32(&planted[5 * 512], static_cast<std::uint32_t>(overHead + 6));
    kordtest::patchFile(fs, file(), overHead * 512, planted);
    kordtest::patchFile(fs, file(), gdOffset * 512, kordtest::le32(static_cast<unsigned>(overHead)));

    kordtest::LogCapture log;
    zu::P<kord::CVMDKSparseExtentFile> extent = open();
    EXPECT_FALSE(extent->getGrainDirectory()->getHaveSlotSizeInfo());
    EXPECT_TRUE(log.contains("Found VMDK marker for zuSlotDirectory outside the metadata area (uri: '" +
                             file().toString(true).toUTF8() + "'). Ignoring the slot directory."))
        << log.all();
    EXPECT_EQ(overHead + 4, extent->getGrainAreaStartSectors()) << "grains must not overwrite the moved table";
    extent = nullptr;

    // A compressed extent cannot do without it: its overHead patched below
    // the slot-size directory makes the directory lie among grain data.
    create(true, 100, 16);
    long long markerAt = open()->getGrainDirectory()->getSlotSizeDirectoryPosSectors() - 1;
    kordtest::patchFile(fs, file(), kordtest::hdr::overHead, kordtest::le64(static_cast<unsigned long long>(markerAt)));
    EXPECT_EQ("Slot size directory not found in compressed VMDK.", msg(expectThrows<zu::CError>([&] { open(); })));
    EXPECT_TRUE(log.contains("outside the metadata area")) << log.all();
}

TEST_P(GrainDirectoryTest, zeroCapacityMeansNoGrainsAndNoTables)
{
    create(false, 1, 128);
    kordtest::patchFile(fs, file(), kordtest::hdr::capacity, kordtest::le64(0));
    zu::P<kord::CVMDKSparseExtentFile> extent = open();
    EXPECT_EQ(0, extent->getGrainDirectory()->getGrainCount());
    EXPECT_EQ(0, extent->getGrainDirectory()->getGrainTableCount());
    unsigned char byte;
    EXPECT_EQ(0, extent->read(&byte, 0));
    EXPECT_THROW(extent->read(&byte, 1), zu::CIOError);
}

KORD_INSTANTIATE_FS(GrainDirectoryTest);
