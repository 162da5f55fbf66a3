// Placing grains: the allocator appends slots at the end of the grain data,
// zeroes the bytes a slot takes over from the file (the old trail) and leaves
// the rest as a hole, and refuses grains that a 32-bit grain table entry
// could not address. Also the refusals of a misused grain object.
#include "common/ExtentTestUtil.h"

#include "grain/CVMDKGrain.h"

using kordtest::Bytes;
using kordtest::expectThrows;
using kordtest::msg;

namespace {

constexpr int rw = zu::IIOStream::accessReadWrite;
constexpr long long grainSectors = 16;
constexpr long long grainBytes = grainSectors * 512;

class GrainAllocatorTest : public kordtest::FileSystemTest {
protected:
    zu::CURI file() const { return uri("extent.vmdk"); }
    Bytes image() const { return kordtest::readAll(fs, file()); }
    zu::P<kord::CVMDKSparseExtentFile> make(bool streamOptimized)
    {
        kordtest::createExtent(fs, file(), {streamOptimized, false, ""}, 64, grainSectors);
        return setup.open(fs, file());
    }
    kordtest::ExtentSetup setup;
};

} // namespace

TEST_P(GrainAllocatorTest, grainBeyondAddressableSectorsIsRefused)
{
    zu::P<kord::CVMDKSparseExtentFile> extent = make(false);
    const Bytes before = image();
    const Bytes data(grainBytes, 1);
    // Grain data ending 8 sectors short of 2^32 sectors: a 16-sector grain cannot be recorded.
    const long long dataEnd = (kord::vmdkMaxAddressableSectors - 8) * 512;
    zu::P<kord::CVMDKGrainAllocator> allocator = zu::newObj<kord::CVMDKGrainAllocator>(
        extent->getStream(), rw, dataEnd, 0, extent->getGrainDirectory(), zu::TBuffer<unsigned char>());
    zu::CIOError e = expectThrows<zu::CIOError>(
        [&] { allocator->allocNewGrain(3, data.data(), static_cast<int>(grainBytes), grainSectors); });
    EXPECT_EQ("VMDK extent file is full", msg(e));
    EXPECT_EQ(zu::CIOError::codeWrite, e.getCode());
    EXPECT_EQ(file().toString(true), e.getProp("uri"));
    EXPECT_EQ(std::to_string(dataEnd / 512), e.getProp("posSectors").toUTF8());
    EXPECT_EQ(dataEnd, allocator->getAllocationPointBytes());

    EXPECT_EQ("Invalid argument passed to 'CVMDKGrainAllocator::allocNewGrain': Slot size is smaller than grain data "
              "size (slot size: 7680 bytes, grain data size: 8192 bytes).",
              msg(expectThrows<zu::CInvalidArgError>([&] {
                  extent->getGrainAllocator()->allocNewGrain(3, data.data(), static_cast<int>(grainBytes), 15);
              })));
    zu::P<kord::CVMDKGrainAllocator> readOnly =
        zu::newObj<kord::CVMDKGrainAllocator>(extent->getStream(), zu::IIOStream::accessRead, 1 << 20, 0,
                                              extent->getGrainDirectory(), zu::TBuffer<unsigned char>());
    EXPECT_EQ("Internal error: CVMDKGrainAllocator::allocNewGrain was called, but the grain allocator was not opened "
              "for writing.",
              msg(expectThrows<zu::CError>(
                  [&] { readOnly->allocNewGrain(3, data.data(), static_cast<int>(grainBytes), grainSectors); })));

    long long pos, slot;
    extent->getGrainInfo(3, pos, slot);
    EXPECT_EQ(0, pos);
    extent = nullptr;
    allocator = readOnly = nullptr;
    EXPECT_EQ(before, image());
}

TEST_P(GrainAllocatorTest, slotBeyondDataZeroesOldBytesAndLeavesHoleAtEnd)
{
    zu::P<kord::CVMDKSparseExtentFile> extent = make(true);
    const long long overHead = extent->getHeader().overHead;
    kord::CVMDKGrainAllocator* allocator = extent->getGrainAllocator();
    ASSERT_EQ(overHead * 512, allocator->getAllocationPointBytes()) << "new grains replace the trail";
    const Bytes data(512, 0x42);
    // Over the trail's footer marker, with a slot of two sectors: the footer
    // after it is zeroed.
    EXPECT_EQ(overHead, allocator->allocNewGrain(0, data.data(), 512, 2));
    // A slot of exactly the data: nothing more is written.
    EXPECT_EQ(overHead + 2, allocator->allocNewGrain(1, data.data(), 512, 1));
    // A slot reaching past the end of the file: the rest stays a hole.
    EXPECT_EQ(overHead + 3, allocator->allocNewGrain(2, data.data(), 512, 4));
    extent->getStream()->flush();
    Bytes file = image();
    EXPECT_EQ((overHead + 4) * 512, static_cast<long long>(file.size()));
    EXPECT_EQ(data, kordtest::slice(file, overHead * 512, 512));
    EXPECT_EQ(Bytes(512, 0), kordtest::slice(file, (overHead + 1) * 512, 512));
    EXPECT_EQ(data, kordtest::slice(file, (overHead + 2) * 512, 512));

    allocator->flushChangesToStream();
    extent->getStream()->flush();
    file = image();
    EXPECT_EQ((overHead + 7) * 512 + 1536, static_cast<long long>(file.size())) << "the trail follows the last slot";
    EXPECT_EQ(Bytes(3 * 512, 0), kordtest::slice(file, (overHead + 4) * 512, 3 * 512));
    long long pos, slot;
    extent->getGrainInfo(2, pos, slot);
    EXPECT_EQ(overHead + 3, pos);
    EXPECT_EQ(4, slot);
}

TEST_P(GrainAllocatorTest, misusedGrainRefuses)
{
    zu::P<kord::CVMDKSparseExtentFile> extent = make(false);
    zu::P<kord::CVMDKGrain> grain = zu::newObj<kord::CVMDKGrain>(
        extent->getStream(), rw, grainSectors, extent->getGrainAllocator(), false, 1, nullptr, nullptr,
        zu::TCryptBuffer<unsigned char>(), zu::TBuffer<unsigned char>());
    EXPECT_EQ("Invalid argument passed to 'CVMDKGrain::open': Slot size for allocated uncompressed grain is smaller "
              "than the grain size (slot size: 8 sectors, grain size: 16 sectors).",
              msg(expectThrows<zu::CInvalidArgError>([&] { grain->open(0, 0, 1000, 8); })));
    grain->open(0, 0, 0, 0);
    unsigned char buffer[4] = {};
    grain->seek(grainBytes);
    grain->read(buffer, 0);
    zu::CIOError e = expectThrows<zu::CIOError>([&] { grain->read(buffer, 1); });
    EXPECT_EQ("Unexpected end of data trying to read 1 bytes from VMDK grain.", msg(e));
    EXPECT_EQ(zu::CIOError::codeEndOfData, e.getCode());
    e = expectThrows<zu::CIOError>([&] { grain->write(buffer, 1); });
    EXPECT_EQ("Cannot write 1 bytes to grain. Grain size exceeded.", msg(e));
    EXPECT_EQ(zu::CIOError::codeWrite, e.getCode());
    grain->seek(1);
    zu::TBuffer<unsigned char> prepared(grainBytes);
    EXPECT_EQ("CVMDKGrain::writePreparedGrainData can only be called when the position in the grain is 0.",
              msg(expectThrows<zu::CIOError>([&] { grain->writePreparedGrainData(prepared); })));
    EXPECT_FALSE(grain->isGrainWritten());
}

KORD_INSTANTIATE_FS(GrainAllocatorTest);
