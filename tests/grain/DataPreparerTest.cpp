// Grain data preparation: the stored-only fallback that bounds the size of a
// compressed grain, and the per-grain encryption IV. (Stored-only output of
// level 0 is measured with the engines.)
// The stored form itself is checked byte for byte in the extent tests, and
// undecodable grain data among the hostile extent files.
#include "common/ExtentTestUtil.h"

#include "grain/CVMDKDataPreparer.h"
#include "grain/CVMDKGrain.h"

#include <zlib.h>

using namespace kordtest;

namespace {

constexpr long long grainSectors = 16;
constexpr long long grainBytes = grainSectors * 512;

// Inflates with zlib itself, independent of the library's engines.
Bytes zlibUncompress(const unsigned char* data, long long bytes)
{
    Bytes out(grainBytes + 16);
    uLongf length = static_cast<uLongf>(out.size());
    EXPECT_EQ(Z_OK, uncompress(out.data(), &length, data, static_cast<uLong>(bytes)));
    out.resize(length);
    return out;
}

// The data of a prepared grain: its size at 8, the stream at 12.
Bytes unpack(const zu::TBuffer<unsigned char>& prepared)
{
    return zlibUncompress(prepared.getData() + 12, zu::loadLE32(prepared.getData() + 8));
}

} // namespace

TEST(DataPreparerTest, incompressibleDataStaysWithinStoredOnlyBoundAndGrainIVsXorTheIndex)
{
    kord::CVMDKDataPreparer preparer(grainSectors, true, 9);
    kord::CVMDKCompressor* compressor = preparer.getCompressor();
    const int bound = compressor->getCompressedSizeUpperBound(static_cast<int>(grainBytes));
    EXPECT_EQ(bound + 12, preparer.getMaxPreparedSectors() * 512) << "the bound fills the stored-only form's last sector";
    const Bytes random = pattern(grainBytes, 7);
    zu::TBuffer<unsigned char> source = toBuffer(random), prepared;
    preparer.prepareGrainData(&source, 1, &prepared);
    EXPECT_LE(zu::loadLE32(prepared.getData() + 8), bound);
    EXPECT_LE(prepared.getUsed(), preparer.getMaxPreparedSectors() * 512);
    EXPECT_EQ(random, unpack(prepared));

    // Where the primary engine runs out of room, the stored-only engine
    // (zlib at level 0: one stored block, 11 bytes of framing) still fits,
    // and the grain is counted; compressible data does not touch it.
    Bytes target(grainBytes + 11);
    const unsigned long long before = compressor->getFallbackCount();
    const int stored = compressor->compressSingleStep(random.data(), static_cast<int>(grainBytes), target.data(),
                                                      static_cast<int>(target.size()));
    EXPECT_EQ(before + 1, compressor->getFallbackCount());
    EXPECT_EQ(random, zlibUncompress(target.data(), stored));
    zu::TBuffer<unsigned char> text = toBuffer(compressible(grainBytes, 2));
    preparer.prepareGrainData(&text, 1, &prepared);
    EXPECT_EQ(before + 1, compressor->getFallbackCount());

    // Eight little-endian bytes of the index, repeated; a negative index is sign-extended.
    const zu::TBuffer<unsigned char> diskIV = toBuffer(pattern(16, 11));
    zu::TBuffer<unsigned char> iv;
    for (long long index : {0LL, 1LL, 0x0102030405060708LL, -1LL}) {
        kord::CVMDKGrain::makeGrainEncryptIV(iv, diskIV, index);
        for (int i = 0; i < 16; ++i)
            EXPECT_EQ(diskIV[i] ^ static_cast<unsigned char>(index >> (8 * (i % 8))), iv[i]) << index << " byte " << i;
    }
}
