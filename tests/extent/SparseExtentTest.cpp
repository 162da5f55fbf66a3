// Sparse extent files through CVMDKSparseExtentFile on both file systems, in
// every kind the library writes (plain, compressed, encrypted, both): random
// I/O against a mirror, the stored form of grains, compressed grains
// rewritten in place or moved, zero writes that allocate nothing, parent
// data, the trail of stream-optimized files, the clean-shutdown flag, and
// the refusals of misused extents.
#include "common/ExtentTestUtil.h"

#include "base/Endian.h"
#include "format/VMDKMarker.h"
#include "grain/CVMDKGrain.h"

#include <zlib.h>

#include <random>

using kordtest::Bytes;
using kordtest::expectThrows;
using kordtest::fileLE32;
using kordtest::fileLE64;
using kordtest::msg;
namespace hdr = kordtest::hdr;

namespace {

constexpr int rw = zu::IIOStream::accessReadWrite;
constexpr long long grainSectors = 16;
constexpr long long grainBytes = grainSectors * 512;

const kordtest::ExtentKind plainKind = kordtest::allExtentKinds()[0];
const kordtest::ExtentKind compressedKind = kordtest::allExtentKinds()[1];

// A parent disk whose even grains are written; odd grains read as zeros.
class FakeParent : public zu::CBase, public kord::IVMDKDataProvider {
public:
    explicit FakeParent(long long grains) : data(kordtest::pattern(grains * grainBytes, 99))
    {
        for (long long g = 1; g < grains; g += 2)
            std::fill(data.begin() + g * grainBytes, data.begin() + (g + 1) * grainBytes, 0);
    }
    void getData(long long position, void* buffer, int length) override
    {
        std::memcpy(buffer, &data.at(position), static_cast<size_t>(length));
    }
    void getPreparedGrainData(long long position, zu::TBuffer<unsigned char>& out, int grainSize,
                              bool compressed) override
    {
        zu::TBuffer<unsigned char> plain(&data.at(position), grainSize);
        kord::CVMDKDataPreparer preparer(grainSize / 512, compressed, 1);
        out.assign(plain.getData(), plain.getUsed());
        if (compressed) preparer.prepareGrainData(&plain, position / grainSize, &out);
    }
    bool isGrainWritten(long long position) override { return position / grainBytes % 2 == 0; }

    Bytes data;
};

class SparseExtentTest : public kordtest::FileSystemTest {
protected:
    zu::CURI file() const { return uri("extent.vmdk"); }
    void create(const kordtest::ExtentKind& kind, long long grains)
    {
        fs->deleteFile(file(), true);
        kordtest::createExtent(fs, file(), kind, grains, grainSectors);
    }
    zu::P<kord::CVMDKSparseExtentFile> open(const kordtest::ExtentKind& kind, int access = rw)
    {
        setup.encrypted = kind.encrypted;
        setup.access = access;
        return setup.open(fs, file());
    }
    Bytes image() const { return kordtest::readAll(fs, file()); }

    static Bytes read(kord::IVMDKExtentFile& extent, long long position, long long bytes)
    {
        Bytes out(static_cast<size_t>(bytes));
        extent.seek(position);
        extent.read(out.data(), static_cast<int>(bytes));
        return out;
    }
    static void write(kord::IVMDKExtentFile& extent, long long position, const Bytes& data)
    {
        extent.seek(position);
        extent.write(data.data(), static_cast<int>(data.size()));
    }
    static long long grainPos(kord::CVMDKSparseExtentFile& extent, long long grain, long long* slot = nullptr)
    {
        long long pos = 0, slotSectors = 0;
        extent.getGrainInfo(grain, pos, slotSectors);
        if (slot) *slot = slotSectors;
        return pos;
    }

    kordtest::ExtentSetup setup;
};

Bytes content(std::mt19937& rng, long long bytes)
{
    switch (rng() % 3) {
    case 0: return Bytes(static_cast<size_t>(bytes), 0);
    case 1: return kordtest::compressible(bytes, rng());
    default: return kordtest::pattern(static_cast<size_t>(bytes), rng());
    }
}

// The sectors of a stream-optimized file's end: footer marker, footer, end-of-stream marker.
void expectTrailAtEnd(const Bytes& file)
{
    ASSERT_GE(file.size(), 1536u);
    const long long at = static_cast<long long>(file.size()) - 1536;
    long long value = -1;
    EXPECT_TRUE(kord::isVMDKMarker(&file[at], kord::vmdkMarkerFooter, &value));
    EXPECT_EQ(1, value);
    EXPECT_EQ(kordtest::slice(file, 0, 512), kordtest::slice(file, at + 512, 512)) << "footer must equal the header";
    EXPECT_TRUE(kord::isVMDKMarker(&file[at + 1024], kord::vmdkMarkerEndOfStream, &value));
}

} // namespace

TEST_P(SparseExtentTest, randomIOMatchesMirrorInEveryKindAndAfterReopen)
{
    for (const kordtest::ExtentKind& kind : kordtest::allExtentKinds()) {
        SCOPED_TRACE(kind.name);
        const long long grains = 600; // two grain tables
        const long long size = grains * grainBytes;
        create(kind, grains);
        Bytes mirror(static_cast<size_t>(size), 0);
        std::mt19937 rng(42);
        {
            zu::P<kord::CVMDKSparseExtentFile> extent = open(kind);
            int writes = 0;
            for (int op = 0; op < 300; ++op) {
                long long pos = rng() % size;
                if (rng() % 4 == 0) pos -= pos % grainBytes; // whole grains too
                long long n = std::min<long long>(1 + rng() % (3 * grainBytes), size - pos);
                if (rng() % 3 == 0) {
                    ASSERT_EQ(kordtest::slice(mirror, pos, n), read(*extent, pos, n)) << "op " << op;
                    continue;
                }
                Bytes data = content(rng, n);
                write(*extent, pos, data);
                std::copy(data.begin(), data.end(), mirror.begin() + pos);
                if (++writes % 30 == 1) {
                    EXPECT_EQ(1, image()[hdr::uncleanShutdown]) << "pending changes: unclean on disk";
                } else if (writes % 30 == 15) {
                    extent->flushChanges();
                    EXPECT_EQ(0, image()[hdr::uncleanShutdown]) << "flushed: clean on disk";
                }
            }
            EXPECT_EQ(mirror, read(*extent, 0, size));
        }
        Bytes file = image();
        EXPECT_EQ(0, file[hdr::uncleanShutdown]);
        if (kind.streamOptimized) expectTrailAtEnd(file);
        zu::P<kord::CVMDKSparseExtentFile> reopened = open(kind, zu::IIOStream::accessRead);
        EXPECT_EQ(mirror, read(*reopened, 0, size));
        reopened = nullptr;
        EXPECT_EQ(file, image()) << "a read-only extent must not change its file";
    }
}

TEST_P(SparseExtentTest, grainsAreStoredInTheFormatsLayout)
{
    const Bytes data = kordtest::compressible(grainBytes, 5);
    zu::TCryptBuffer<unsigned char> key = kordtest::testKey();
    zu::TBuffer<unsigned char> iv;
    kord::CVMDKGrain::makeGrainEncryptIV(iv, kordtest::testIV(), 7); // disk grain index: start 5 + grain 2
    pell::CCipher_AES256CBC cipher;
    for (const kordtest::ExtentKind& kind : kordtest::allExtentKinds()) {
        SCOPED_TRACE(kind.name);
        create(kind, 8);
        setup.startGrainIndex = 5;
        long long pos, slot, maxSlot;
        {
            zu::P<kord::CVMDKSparseExtentFile> extent = open(kind);
            write(*extent, 2 * grainBytes, data);
            extent->flushChanges();
            pos = grainPos(*extent, 2, &slot);
            maxSlot = extent->createDataPreparer()->getMaxPreparedSectors() + (kind.encrypted ? 1 : 0);
        }
        Bytes file = image();
        if (!kind.streamOptimized) {
            EXPECT_EQ(grainSectors, slot);
            Bytes expected = data;
            if (kind.encrypted) cipher.encryptBlocksInPlace(key.getData(), expected.data(), grainBytes, iv.getData());
            EXPECT_EQ(expected, kordtest::slice(file, pos * 512, grainBytes));
            continue;
        }
        EXPECT_EQ(maxSlot, slot);
        const unsigned char* stored = &file[pos * 512];
        EXPECT_EQ(7u * grainSectors, zu::loadLE64(stored)) << "grain LBA uses the disk grain index";
        long long size = zu::loadLE32(stored + 8);
        long long prepared = (12 + size + 511) / 512 * 512;
        long long storedBytes = kind.encrypted ? 12 + prepared : 12 + size;
        Bytes deflate = kordtest::slice(file, pos * 512 + 12, storedBytes - 12);
        if (kind.encrypted) cipher.decryptBlocksInPlace(key.getData(), deflate.data(), static_cast<int>(prepared), iv.getData());
        Bytes plain(grainBytes);
        uLongf length = grainBytes;
        ASSERT_EQ(Z_OK, uncompress(plain.data(), &length, deflate.data(), static_cast<uLong>(size)));
        EXPECT_EQ(data, plain);
        EXPECT_EQ(Bytes(static_cast<size_t>(slot * 512 - storedBytes), 0),
                  kordtest::slice(file, pos * 512 + storedBytes, slot * 512 - storedBytes))
            << "the slot beyond the stored grain reads as zeros";
        EXPECT_EQ(static_cast<long long>(file.size()), (pos + slot) * 512 + 1536) << "the trail follows the slot";
    }
}

TEST_P(SparseExtentTest, compressedGrainIsRewrittenInPlaceWhenItFitsAndMovedWhenNot)
{
    create(compressedKind, 64);
    const Bytes random = kordtest::pattern(grainBytes, 4);
    long long pos2, pos5;
    {
        zu::P<kord::CVMDKSparseExtentFile> extent = open(compressedKind);
        write(*extent, 2 * grainBytes, kordtest::compressible(grainBytes, 1));
        extent->flushChanges();
        pos2 = grainPos(*extent, 2);
        write(*extent, 2 * grainBytes, kordtest::compressible(grainBytes, 2));
        extent->flushChanges();
        EXPECT_EQ(pos2, grainPos(*extent, 2)) << "smaller data fits the slot";
        write(*extent, 2 * grainBytes, random);
        extent->flushChanges();
        EXPECT_EQ(pos2, grainPos(*extent, 2)) << "our slots hold incompressible grains too";

        // A grain stored with a slot of exactly its data's size.
        zu::P<kord::CVMDKDataPreparer> preparer = extent->createDataPreparer();
        zu::TBuffer<unsigned char> source(kordtest::compressible(grainBytes, 3).data(), grainBytes);
        zu::TBuffer<unsigned char> prepared;
        preparer->prepareGrainData(&source, 5, &prepared);
        kord::CVMDKGrainAllocator* allocator = extent->getGrainAllocator();
        pos5 = allocator->allocNewGrain(5, prepared.getData(), static_cast<int>(prepared.getUsed()),
                                        static_cast<int>(prepared.getUsed() / 512));
        EXPECT_EQ(kordtest::compressible(grainBytes, 3), read(*extent, 5 * grainBytes, grainBytes));
        long long end = allocator->getAllocationPointBytes();
        write(*extent, 5 * grainBytes, random);
        extent->flushChanges();
        long long slot;
        EXPECT_EQ(end / 512, grainPos(*extent, 5, &slot)) << "larger data moves to new storage";
        EXPECT_EQ(preparer->getMaxPreparedSectors(), slot);
    }
    zu::P<kord::CVMDKSparseExtentFile> extent = open(compressedKind, zu::IIOStream::accessRead);
    EXPECT_EQ(random, read(*extent, 2 * grainBytes, grainBytes));
    EXPECT_EQ(random, read(*extent, 5 * grainBytes, grainBytes));
    EXPECT_NE(pos5, grainPos(*extent, 5));
}

TEST_P(SparseExtentTest, zeroWritesToUnwrittenGrainsAllocateNothing)
{
    for (const kordtest::ExtentKind& kind : kordtest::allExtentKinds()) {
        SCOPED_TRACE(kind.name);
        create(kind, 16);
        const Bytes before = image();
        setup.updater = zu::newObj<kord::CVMDKContentIDUpdater>(fs, file(), zu::newObj<kord::CVMDKDescriptor>());
        setup.updater->setContentIDUpdatesEnabled(false);
        {
            zu::P<kord::CVMDKSparseExtentFile> extent = open(kind);
            write(*extent, 3 * grainBytes, Bytes(grainBytes, 0));             // a whole grain
            write(*extent, 5 * grainBytes + 100, Bytes(300, 0));              // part of one
            write(*extent, 8 * grainBytes - 50, Bytes(2 * grainBytes + 99, 0)); // across three
            extent->seek(3 * grainBytes);
            EXPECT_FALSE(extent->isGrainWritten());
            extent->flushChanges();
        }
        EXPECT_EQ(before, image());
        setup.updater = nullptr;
    }
}

TEST_P(SparseExtentTest, parentDataShowsThroughAndZerosHideIt)
{
    for (const kordtest::ExtentKind& kind : {plainKind, compressedKind}) {
        SCOPED_TRACE(kind.name);
        create(kind, 16);
        setup.updater = nullptr;
        zu::P<FakeParent> parent = zu::newObj<FakeParent>(16);
        setup.provider = parent;
        Bytes grain2 = kordtest::slice(parent->data, 2 * grainBytes, grainBytes);
        {
            zu::P<kord::CVMDKSparseExtentFile> extent = open(kind);
            EXPECT_TRUE(extent->makeGrainIndependentOfParent(4));
            EXPECT_EQ(1, image()[hdr::uncleanShutdown]) << "copying a grain changes the file";
            EXPECT_FALSE(setup.updater->isDone()) << "but not the disk's content: the content ID stays";
            extent->flushChanges();
            EXPECT_EQ(0, image()[hdr::uncleanShutdown]);

            write(*extent, 0, Bytes(grainBytes, 0)); // hides parent data: must be stored
            write(*extent, grainBytes, Bytes(grainBytes, 0)); // parent has nothing here
            Bytes patch = kordtest::pattern(100, 3);
            write(*extent, 2 * grainBytes + 1000, patch);
            std::copy(patch.begin(), patch.end(), grain2.begin() + 1000);
            EXPECT_EQ(grain2, read(*extent, 2 * grainBytes, grainBytes));
            EXPECT_TRUE(setup.updater->isDone());
            for (long long g : {0, 1, 2, 4, 6}) {
                extent->seek(g * grainBytes);
                EXPECT_EQ(g != 1, extent->isGrainWritten()) << "grain " << g;
                EXPECT_EQ(g != 1 && g != 6, extent->isGrainWrittenAndIndependentOfParent()) << "grain " << g;
            }
        }
        setup.provider = nullptr;
        zu::P<kord::CVMDKSparseExtentFile> alone = open(kind, zu::IIOStream::accessRead);
        EXPECT_EQ(Bytes(grainBytes, 0), read(*alone, 0, grainBytes));
        EXPECT_EQ(grain2, read(*alone, 2 * grainBytes, grainBytes));
        EXPECT_EQ(kordtest::slice(parent->data, 4 * grainBytes, grainBytes), read(*alone, 4 * grainBytes, grainBytes));
        EXPECT_EQ(Bytes(grainBytes, 0), read(*alone, 6 * grainBytes, grainBytes));
        EXPECT_EQ(grainPos(*alone, 1), 0);
    }
}

TEST_P(SparseExtentTest, streamOptimizedTrailMovesBehindNewGrains)
{
    create(compressedKind, 64);
    const long long overHead = static_cast<long long>(fileLE64(image(), hdr::overHead));
    long long slot = 0, dataBytes = 0;
    {
        zu::P<kord::CVMDKSparseExtentFile> extent = open(compressedKind);
        write(*extent, 0, Bytes(grainBytes, 0x11)); // one sector when compressed
        write(*extent, 7 * grainBytes, kordtest::compressible(grainBytes, 2));
        extent->flushChanges();
        EXPECT_EQ(overHead, grainPos(*extent, 0, &slot)) << "the first grain replaces the trail";
        EXPECT_EQ(overHead + slot, grainPos(*extent, 7));
        dataBytes = (12 + fileLE32(image(), overHead * 512 + 8) + 511) / 512 * 512;
    }
    Bytes bytes = image();
    expectTrailAtEnd(bytes);
    EXPECT_EQ(static_cast<long long>(bytes.size()), (overHead + 2 * slot) * 512 + 1536);
    ASSERT_LT(dataBytes, 1536);
    EXPECT_EQ(Bytes(static_cast<size_t>(1536 - dataBytes), 0),
              kordtest::slice(bytes, overHead * 512 + dataBytes, 1536 - dataBytes))
        << "the old trail inside the first grain's slot must be zeroed";

    // Bytes we did not write at the end are kept; grains and trail go after them.
    const Bytes foreign(512, 0xAB);
    bytes.insert(bytes.end(), foreign.begin(), foreign.end());
    kordtest::writeAll(fs, file(), bytes);
    {
        kordtest::LogCapture log;
        zu::P<kord::CVMDKSparseExtentFile> extent = open(compressedKind);
        EXPECT_TRUE(log.contains("VMDK trail data is not what we expected. Assuming that it is not trail data - we "
                                 "won't overwrite it."))
            << log.all();
        write(*extent, 3 * grainBytes, kordtest::compressible(grainBytes, 3));
        extent->flushChanges();
        EXPECT_EQ(static_cast<long long>(bytes.size()) / 512, grainPos(*extent, 3));
    }
    Bytes after = image();
    EXPECT_EQ(foreign, kordtest::slice(after, static_cast<long long>(bytes.size()) - 512, 512));
    expectTrailAtEnd(after);
    kordtest::LogCapture log;
    zu::P<kord::CVMDKSparseExtentFile> extent = open(compressedKind, zu::IIOStream::accessRead);
    EXPECT_TRUE(log.lines.empty()) << log.all();
    EXPECT_EQ(kordtest::compressible(grainBytes, 3), read(*extent, 3 * grainBytes, grainBytes));
    EXPECT_EQ(kordtest::compressible(grainBytes, 2), read(*extent, 7 * grainBytes, grainBytes));
}

TEST_P(SparseExtentTest, preparedGrainsCopyBetweenExtentsOfOneKind)
{
    for (const kordtest::ExtentKind& kind : kordtest::allExtentKinds()) {
        SCOPED_TRACE(kind.name);
        create(kind, 8);
        const Bytes data = kordtest::compressible(grainBytes, 9);
        zu::TBuffer<unsigned char> written, unwritten;
        {
            zu::P<kord::CVMDKSparseExtentFile> source = open(kind);
            write(*source, grainBytes, data);
            source->seek(grainBytes);
            source->readPreparedGrainData(written);
            EXPECT_EQ(2 * grainBytes, source->getPosition());
            source->readPreparedGrainData(unwritten);
        }
        create(kind, 8);
        zu::P<kord::CVMDKSparseExtentFile> target = open(kind);
        target->seek(grainBytes);
        target->writePreparedGrainData(written);
        target->writePreparedGrainData(unwritten);
        EXPECT_EQ(data, read(*target, grainBytes, grainBytes));
        EXPECT_EQ(Bytes(grainBytes, 0), read(*target, 2 * grainBytes, grainBytes));
    }
}

TEST_P(SparseExtentTest, shortPreparedDataFillsAnUncompressedGrainWithZeros)
{
    for (const kordtest::ExtentKind& kind : {plainKind, kordtest::allExtentKinds()[2]}) {
        SCOPED_TRACE(kind.name);
        create(kind, 4);
        Bytes expected(grainBytes, 0);
        std::fill(expected.begin(), expected.begin() + grainBytes / 2, 0x77);
        zu::TBuffer<unsigned char> half(expected.data(), grainBytes / 2);
        {
            zu::P<kord::CVMDKSparseExtentFile> extent = open(kind);
            write(*extent, 2 * grainBytes, kordtest::pattern(grainBytes, 1)); // in place: old bytes must go
            extent->seek(2 * grainBytes);
            extent->writePreparedGrainData(half);
            extent->writePreparedGrainData(half); // new storage, the last grain of the file
            EXPECT_EQ(expected, read(*extent, 3 * grainBytes, grainBytes));
        }
        zu::P<kord::CVMDKSparseExtentFile> extent = open(kind, zu::IIOStream::accessRead);
        EXPECT_EQ(expected, read(*extent, 2 * grainBytes, grainBytes));
        EXPECT_EQ(expected, read(*extent, 3 * grainBytes, grainBytes));
    }
}

TEST_P(SparseExtentTest, spaceInfoCountsWrittenGrainsBeforeAndAfterFlush)
{
    for (const kordtest::ExtentKind& kind : kordtest::allExtentKinds()) {
        SCOPED_TRACE(kind.name);
        create(kind, 16);
        zu::P<kord::CVMDKSparseExtentFile> extent = open(kind);
        for (long long g : {1, 4, 9}) write(*extent, g * grainBytes, kordtest::compressible(grainBytes, 7));
        long long slot;
        for (int pass = 0; pass < 2; ++pass) {
            zu::P<kord::CVMDKSpaceInfo> info = extent->gatherSpaceInfo();
            grainPos(*extent, 1, &slot);
            EXPECT_EQ(3 * grainBytes, info->payloadSize);
            EXPECT_EQ(3 * slot * 512, info->payloadSizeInFile);
            EXPECT_EQ(extent->getHeader().overHead * 512, info->headerSize);
            EXPECT_EQ(kind.streamOptimized ? 1536 : 0, info->deadSpace) << "pass " << pass;
            extent->flushChanges();
        }
    }
}

TEST_P(SparseExtentTest, misusedExtentRefusesAndLeavesFileAlone)
{
    create(plainKind, 4);
    const long long size = 4 * grainBytes;
    const Bytes before = image();
    {
        zu::P<kord::CVMDKSparseExtentFile> extent = open(plainKind);
        extent->seek(size);
        zu::CError e = expectThrows<zu::CInvalidArgError>([&] { extent->seek(size + 1); });
        EXPECT_EQ("Invalid argument passed to 'CVMDKSparseExtentFile::seek': Invalid position: 32769.", msg(e));
        EXPECT_EQ("32768", e.getProp("extentSize"));
        unsigned char buffer[2] = {1, 2};
        e = expectThrows<zu::CIOError>([&] { extent->read(buffer, 1); });
        EXPECT_EQ("Unexpected end of data reading from VMDK sparse extent file.", msg(e));
        EXPECT_EQ(4, e.getCode());
        EXPECT_EQ("1", e.getProp("bytesToRead"));
        extent->seek(size - 1);
        e = expectThrows<zu::CIOError>([&] { extent->write(buffer, 2); });
        EXPECT_EQ("Write exceeded VMDK extent size.", msg(e));
        EXPECT_EQ(3, e.getCode());
        EXPECT_EQ(std::to_string(size - 1), e.getProp("position").toUTF8());

        zu::TBuffer<unsigned char> prepared;
        extent->seek(grainBytes + 1);
        EXPECT_EQ("Prepared grain read in VMDK extent file can only be done on a grain boundary.",
                  msg(expectThrows<zu::CIOError>([&] { extent->readPreparedGrainData(prepared); })));
        extent->seek(size);
        EXPECT_EQ("Prepared grain write exceeds VMDK extent size.",
                  msg(expectThrows<zu::CIOError>([&] { extent->writePreparedGrainData(prepared); })));
    }
    EXPECT_EQ(before, image());

    zu::P<kord::CVMDKSparseExtentFile> readOnly = open(plainKind, zu::IIOStream::accessRead);
    const std::string notWritable =
        "Internal error: VMDK sparse extent file is about to be changed, but it was not opened for writing.";
    EXPECT_EQ(notWritable, msg(expectThrows<zu::CError>([&] { write(*readOnly, 0, Bytes(10, 1)); })));
    EXPECT_EQ(notWritable, msg(expectThrows<zu::CError>([&] { readOnly->makeGrainIndependentOfParent(0); })));
    readOnly = nullptr;
    setup.withUpdater = false;
    setup.updater = nullptr;
    zu::P<kord::CVMDKSparseExtentFile> noUpdater = open(plainKind);
    EXPECT_EQ("Internal error: VMDK sparse extent file is about to be changed, but it does not have a content ID "
              "updater.",
              msg(expectThrows<zu::CError>([&] { write(*noUpdater, 0, Bytes(10, 1)); })));
    noUpdater = nullptr;
    EXPECT_EQ(before, image());
}

KORD_INSTANTIATE_FS(SparseExtentTest);
