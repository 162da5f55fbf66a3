// Placing grains: the allocator refuses a grain that a 32-bit grain table
// entry could not address, and leaves the file as it was. (Where slots land
// and what they zero is checked through whole extents in the extent tests.)
#include "common/ExtentTestUtil.h"

using namespace kordtest;

using GrainAllocatorTest = ExtentFileTest;

TEST_P(GrainAllocatorTest, grainBeyondAddressableSectorsIsRefused)
{
    create(plainKind, 64);
    const Bytes before = image(), data(16 * 512, 1);
    zu::P<kord::CVMDKSparseExtentFile> extent = open();
    // Grain data ending 8 sectors short of 2^32 sectors: a 16-sector grain cannot be recorded.
    const long long dataEnd = (kord::vmdkMaxAddressableSectors - 8) * 512;
    zu::P<kord::CVMDKGrainAllocator> allocator = zu::newObj<kord::CVMDKGrainAllocator>(
        extent->getStream(), rw, dataEnd, 0, extent->getGrainDirectory(), zu::TBuffer<unsigned char>());
    allocator->setReferencedEnd(0);
    zu::CIOError e = expectError([&] { allocator->allocNewGrain(3, data.data(), 16 * 512, 16); },
                                 "VMDK extent file is full", zu::CIOError::codeWrite);
    EXPECT_EQ(file().toString(true), e.getProp("uri"));
    EXPECT_EQ(std::to_string(dataEnd / 512), e.getProp("posSectors").toUTF8());
    EXPECT_EQ(dataEnd, allocator->getAllocationPointBytes());
    EXPECT_EQ(0, grainPos(*extent, 3));
    extent = nullptr;
    allocator = nullptr;
    EXPECT_EQ(before, image());
}

KORD_INSTANTIATE_FS(GrainAllocatorTest);
