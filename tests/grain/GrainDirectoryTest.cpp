// The grain directory of real extent files: tables loaded in batches
// (without losing tables that are cached with unwritten changes), and
// the slot-size directory probe, which honours only a slot-size directory
// where our layout puts it.
#include "common/ExtentTestUtil.h"

#include "format/VMDKMarker.h"

using namespace kordtest;

namespace {

class GrainDirectoryTest : public ExtentFileTest {
protected:
    zu::P<kord::CVMDKSparseExtentFile> openWithCache(int cacheLimit = kord::CVMDKGrainTableCache::defaultLimit)
    {
        cache = zu::newObj<kord::CVMDKGrainTableCache>(cacheLimit);
        return open();
    }
    std::string uriText() const { return file().toString(true).toUTF8(); }
};

} // namespace

// Nor one whose writes fail: a table left under a dead directory's address
// would be taken for a table of the next directory made there.
TEST_P(GrainDirectoryTest, sharedCacheLosesNoChangesAndKeepsNoTablesOfAClosedDirectory)
{
    for (bool failing : {false, true}) {
        create(plainKind, 100);
        zu::P<kord::CVMDKSparseExtentFile> extent = openWithCache();
        writeAt(*extent, 0, Bytes(512, 1));
        readAt(*extent, 5 * 16 * 512, 1);              // stores grain 0: its table is dirty
        EXPECT_NE(0, cache->getCachedTableCount());
        if (failing) extent->getStream()->close();     // every later write fails
        LogCapture log;
        extent = nullptr;
        EXPECT_EQ(failing, !log.lines.empty()) << "a failure must be reported";
        EXPECT_EQ(0, cache->getCachedTableCount());
    }

    // Table 3 is written to and stays cached (recently used) while other
    // tables of its batch are evicted; loading the batch again must not
    // replace it by the stale copy on disk.
    create(plainKind, 64 * 512, 1);
    zu::P<kord::CVMDKSparseExtentFile> extent = openWithCache(40);
    const long long grain3 = 3 * 512 * 512; // first grain of table 3, in bytes
    const Bytes data = pattern(512, 1), more = pattern(512, 2);
    writeAt(*extent, grain3, data);
    readAt(*extent, 32 * 512 * 512, 1); // loads tables 32..63, evicting most of 0..31; stores grain 3
    readAt(*extent, 7 * 512 * 512, 1);  // table 7 was evicted: its batch loads again
    EXPECT_EQ(data, readAt(*extent, grain3, 512));
    writeAt(*extent, grain3 + 512, more);
    extent = nullptr;
    extent = openWithCache();
    EXPECT_EQ(data, readAt(*extent, grain3, 512)) << "a stale table written back loses grains";
    EXPECT_EQ(more, readAt(*extent, grain3 + 512, 512));
}

TEST_P(GrainDirectoryTest, slotSizeDirectoryFoundOnlyBehindTheLastTableWithItsSizeAndZeroCapacityHasNoTables)
{
    // (Where our layout puts it is checked byte for byte with the empty
    // layouts; that it is found, by every compressed extent that reuses slots.)
    create(compressedKind, 1100);
    const long long markerAt = open()->getGrainDirectory()->getSlotSizeDirectoryPosSectors() - 1;
    patchFile(fs, file(), markerAt * 512, le64(7));
    LogCapture log;
    zu::CError e = expectError<zu::CError>([&] { open(); }, "Slot size directory not found in compressed VMDK.", -1);
    EXPECT_EQ(file().toString(true), e.getProp("uri"));
    EXPECT_TRUE(log.contains("Found VMDK marker for zuSlotDirectory, but the slot directory size does not match the "
                             "expected value (actual: 7, expected: 1, uri: '" + uriText() + "'). Ignoring the slot "
                             "directory."));

    // A plain extent whose only grain table is moved into the grain area,
    // followed by a well-formed slot-size directory and table.
    create(plainKind, 100);
    const long long overHead = static_cast<long long>(fileLE64(image(), hdr::overHead));
    Bytes planted(8 * 512, 0); // table (4 sectors), marker, directory, slot table (2)
    zu::storeLE64(&planted[4 * 512], 1); // marker value: directory sectors
    zu::storeLE32(&planted[4 * 512 + 12], kord::vmdkMarkerSlotSizeDirectory);
    zu::storeLE32(&planted[5 * 512], static_cast<std::uint32_t>(overHead + 6));
    patchFile(fs, file(), overHead * 512, planted);
    patchFile(fs, file(), fileLE64(image(), hdr::gdOffset) * 512, le32(static_cast<unsigned>(overHead)));
    log.lines.clear();
    zu::P<kord::CVMDKSparseExtentFile> extent = open();
    EXPECT_FALSE(extent->getGrainDirectory()->getHaveSlotSizeInfo());
    EXPECT_TRUE(log.contains("Found VMDK marker for zuSlotDirectory outside the metadata area (uri: '" + uriText() +
                             "'). Ignoring the slot directory."));
    EXPECT_EQ(overHead + 4, extent->getGrainAreaStartSectors()) << "grains must not overwrite the moved table";

    // A capacity of zero means no grains and no tables.
    create(plainKind, 1, 128);
    patchFile(fs, file(), hdr::capacity, le64(0));
    EXPECT_EQ(0, open()->getGrainDirectory()->getGrainTableCount());
}

KORD_INSTANTIATE_FS(GrainDirectoryTest);
