// Sparse extent files through CVMDKSparseExtentFile on both file systems, in
// every kind the library writes (plain, compressed, encrypted, both): the
// stored form of grains and the clean-shutdown flag, rewrites of compressed
// and encrypted grains that move and slots reused, zero writes that
// allocate nothing, the trail of stream-optimized files, and the refusals
// of misused extents. (Random I/O and parent data are covered through
// whole disks, partial reads of encrypted grains by the disk's password
// cases, and what small reads cost by the read benchmark.)
#include "common/ExtentTestUtil.h"

#include "format/VMDKMarker.h"
#include "grain/CVMDKGrain.h"

#include <zlib.h>

using namespace kordtest;

namespace {

constexpr long long grainBytes = 16 * 512;

class SparseExtentTest : public ExtentFileTest {};

// The sectors of a stream-optimized file's end: footer marker, footer, end-of-stream marker.
void expectTrailAtEnd(const Bytes& file)
{
    ASSERT_GE(file.size(), 1536u);
    const long long at = static_cast<long long>(file.size()) - 1536;
    long long value = -1;
    EXPECT_TRUE(kord::isVMDKMarker(&file[at], kord::vmdkMarkerFooter, &value));
    EXPECT_EQ(1, value);
    EXPECT_EQ(slice(file, 0, 512), slice(file, at + 512, 512)) << "footer must equal the header";
    EXPECT_TRUE(kord::isVMDKMarker(&file[at + 1024], kord::vmdkMarkerEndOfStream, &value));
}

} // namespace

// Every kind stores a grain in the format's layout (encrypted with the
// disk grain index's IV, deflated behind the grain marker, in a slot of
// just its size, in place of the trail, which follows it), counts it, and
// marks the file unclean while a change is pending; zeros written to
// unwritten grains allocate nothing. (Bytes after the trail that are not a
// trail are kept, and new grains go behind them: the durability tests' lost
// trail.) (Random I/O
// in every kind is covered through whole disks.)
TEST_P(SparseExtentTest, grainsAreStoredInTheFormatsLayoutAndCounted)
{
    const Bytes data = compressible(grainBytes, 5);
    zu::TBuffer<unsigned char> iv;
    kord::CVMDKGrain::makeGrainEncryptIV(iv, testIV(), 7); // disk grain index: start 5 + grain 2
    pell::CCipher_AES256CBC cipher;
    startGrainIndex = 5;
    for (const ExtentKind& kind : allExtentKinds) {
        SCOPED_TRACE(kind.name);
        create(kind, 16);
        const Bytes fresh = image();
        updater = zu::newObj<kord::CVMDKContentIDUpdater>(fs, file(), zu::newObj<kord::CVMDKDescriptor>());
        updater->setContentIDUpdatesEnabled(false);
        {
            zu::P<kord::CVMDKSparseExtentFile> extent = open(kind);
            writeAt(*extent, 3 * grainBytes, Bytes(grainBytes, 0));               // a whole grain
            writeAt(*extent, 5 * grainBytes + 100, Bytes(300, 0));                // part of one
            writeAt(*extent, 8 * grainBytes - 50, Bytes(2 * grainBytes + 99, 0)); // across three
            extent->seek(3 * grainBytes);
            EXPECT_FALSE(extent->isGrainWritten());
        }
        EXPECT_EQ(fresh, image()) << "zeros in unwritten grains";
        updater = nullptr;
        long long pos, slot;
        {
            zu::P<kord::CVMDKSparseExtentFile> extent = open(kind);
            writeAt(*extent, 2 * grainBytes, data);
            EXPECT_EQ(1, image()[hdr::uncleanShutdown]) << "pending changes: unclean on disk";
            pos = grainPos(*extent, 2, &slot);
            zu::P<kord::CVMDKSpaceInfo> info = extent->gatherSpaceInfo(); // with the grain not yet stored
            EXPECT_EQ((std::vector<long long>{grainBytes, slot * 512, extent->getHeader().overHead * 512,
                                              kind.streamOptimized ? 1536 : 0}),
                      (std::vector<long long>{info->payloadSize, info->payloadSizeInFile, info->headerSize, info->deadSpace}));
            EXPECT_TRUE(kind.streamOptimized || slot == 16);
        }
        const Bytes file = image();
        EXPECT_EQ(0, file[hdr::uncleanShutdown]) << "stored: clean on disk";
        if (!kind.streamOptimized) {
            Bytes expected = data;
            if (kind.encrypted)
                cipher.encryptBlocksInPlace(testKey().getData(), expected.data(), grainBytes, iv.getData());
            EXPECT_EQ(expected, slice(file, pos * 512, grainBytes));
            continue;
        }
        const unsigned char* stored = &file[pos * 512];
        EXPECT_EQ(7u * 16, zu::loadLE64(stored)) << "grain LBA uses the disk grain index";
        const long long size = zu::loadLE32(stored + 8), prepared = (12 + size + 511) / 512 * 512;
        const long long storedBytes = kind.encrypted ? 12 + prepared : 12 + size;
        Bytes deflate = slice(file, pos * 512 + 12, storedBytes - 12);
        if (kind.encrypted) cipher.decryptBlocksInPlace(testKey().getData(), deflate.data(), prepared, iv.getData());
        Bytes plain(grainBytes);
        uLongf length = grainBytes;
        ASSERT_EQ(Z_OK, uncompress(plain.data(), &length, deflate.data(), static_cast<uLong>(size)));
        EXPECT_EQ(data, plain);
        EXPECT_EQ(Bytes(slot * 512 - storedBytes, 0), slice(file, pos * 512 + storedBytes, slot * 512 - storedBytes))
            << "the slot beyond the stored grain reads as zeros";
        EXPECT_EQ((storedBytes + 511) / 512, slot) << "a compressed grain's slot is what it needs";
        EXPECT_EQ(static_cast<long long>(fileLE64(file, hdr::overHead)), pos) << "the first grain replaces the trail";
        EXPECT_EQ(static_cast<long long>(file.size()), (pos + slot) * 512 + 1536) << "the trail follows the slot";
        expectTrailAtEnd(file);
    }
}

TEST_P(SparseExtentTest, rewritesMoveWhereATornWriteWouldLoseTheGrainAndFreedSlotsAreReused)
{
    const Bytes random = pattern(grainBytes, 4);
    for (const ExtentKind& kind : allExtentKinds) {
        SCOPED_TRACE(kind.name);
        create(kind, 64);
        const bool moves = kind.streamOptimized || kind.encrypted;
        {
            zu::P<kord::CVMDKSparseExtentFile> extent = open(kind);
            writeAt(*extent, 2 * grainBytes, compressible(grainBytes, 1));
            extent->flushChanges();
            const long long durable = grainPos(*extent, 2);
            writeAt(*extent, 2 * grainBytes, compressible(grainBytes, 2));
            const long long moved = grainPos(*extent, 2);
            EXPECT_EQ(moves, moved != durable) << "a durable compressed or encrypted grain is never overwritten";
            writeAt(*extent, 2 * grainBytes, compressible(grainBytes, 4));
            EXPECT_EQ(moved, grainPos(*extent, 2)) << "a slot no durable table points at is rewritten in place";
            writeAt(*extent, 2 * grainBytes, random);
            const long long randomAt = grainPos(*extent, 2);
            EXPECT_EQ(kind.streamOptimized, randomAt != moved) << "larger data moves";
            extent->flushChanges();
            writeAt(*extent, 9 * grainBytes, compressible(grainBytes, 3));
            const long long at9 = grainPos(*extent, 9);
            EXPECT_TRUE(moves ? at9 == durable || at9 == moved : at9 == randomAt + 16)
                << "the slots grains left are handed out again once the moves are durable";
        }
        zu::P<kord::CVMDKSparseExtentFile> extent = open(kind, zu::IIOStream::accessRead);
        EXPECT_EQ(random, readAt(*extent, 2 * grainBytes, grainBytes));
        EXPECT_EQ(compressible(grainBytes, 3), readAt(*extent, 9 * grainBytes, grainBytes));
    }
}

TEST_P(SparseExtentTest, shortPreparedDataFillsAnUncompressedGrainWithZeros)
{
    for (const ExtentKind& kind : {plainKind, encryptedKind}) {
        SCOPED_TRACE(kind.name);
        create(kind, 4);
        Bytes expected(grainBytes, 0);
        std::fill_n(expected.begin(), grainBytes / 2, 0x77);
        const zu::TBuffer<unsigned char> half = toBuffer(slice(expected, 0, grainBytes / 2));
        {
            zu::P<kord::CVMDKSparseExtentFile> extent = open(kind);
            writeAt(*extent, 2 * grainBytes, pattern(grainBytes, 1)); // in place: old bytes must go
            extent->seek(2 * grainBytes);
            extent->writePreparedGrainData(half);
            extent->writePreparedGrainData(half); // new storage, the last grain of the file
            EXPECT_EQ(expected, readAt(*extent, 3 * grainBytes, grainBytes));
        }
        for (long long g : {2, 3}) EXPECT_EQ(expected, readAt(*open(kind, zu::IIOStream::accessRead), g * grainBytes, grainBytes));
    }
}

TEST_P(SparseExtentTest, misusedExtentRefusesAndLeavesFileAlone)
{
    create(plainKind, 4);
    const long long size = 4 * grainBytes;
    const Bytes before = image();
    zu::P<kord::CVMDKSparseExtentFile> extent = open(), readOnly = open(plainKind, zu::IIOStream::accessRead);
    unsigned char buffer[2] = {1, 2};
    zu::TBuffer<unsigned char> prepared;
    const std::string notWritable =
        "Internal error: VMDK sparse extent file is about to be changed, but it was not opened for writing.";
    // {where, the misuse, its message and code, a property and its value}
    const std::vector<std::tuple<long long, std::function<void()>, std::string, long long, std::string, std::string>> cases = {
        {size, [&] { extent->seek(size + 1); },
         "Invalid argument passed to 'CVMDKSparseExtentFile::seek': Invalid position: 32769.", -1, "extentSize", "32768"},
        {size, [&] { extent->read(buffer, 1); }, "Unexpected end of data reading from VMDK sparse extent file.",
         zu::CIOError::codeEndOfData, "bytesToRead", "1"},
        {size - 1, [&] { extent->write(buffer, 2); }, "Write exceeded VMDK extent size.", zu::CIOError::codeWrite,
         "position", std::to_string(size - 1)},
        {grainBytes + 1, [&] { extent->readPreparedGrainData(prepared); },
         "Prepared grain read in VMDK extent file can only be done on a grain boundary.", 11, "", ""},
        {size, [&] { extent->writePreparedGrainData(prepared); }, "Prepared grain write exceeds VMDK extent size.", 3, "", ""},
        {0, [&] { writeAt(*readOnly, 0, Bytes(10, 1)); }, notWritable, -1, "", ""},
        {0, [&] { readOnly->makeGrainIndependentOfParent(0); }, notWritable, -1, "", ""}};
    for (const auto& [at, misuse, message, code, name, value] : cases) {
        extent->seek(at);
        zu::CError e = expectError<zu::CError>(misuse, message, code);
        EXPECT_TRUE(name.empty() || e.getProp(name.c_str()).toUTF8() == value) << name;
    }
    extent = readOnly = nullptr;
    EXPECT_EQ(before, image());
}

KORD_INSTANTIATE_FS(SparseExtentTest);
