// Grain data preparation: the prepared form of a compressed grain byte for
// byte (checked with zlib itself), the stored-only fallback that bounds its
// size, and the per-grain encryption IV.
#include "common/TestUtil.h"

#include "base/Endian.h"
#include "grain/CVMDKDataPreparer.h"
#include "grain/CVMDKGrain.h"

#include <zlib.h>

using kordtest::expectThrows;
using kordtest::msg;

namespace {

using Bytes = std::vector<unsigned char>;
constexpr long long grainSectors = 16;
constexpr long long grainBytes = grainSectors * 512;

zu::TBuffer<unsigned char> buffer(const Bytes& bytes)
{
    return zu::TBuffer<unsigned char>(bytes.data(), static_cast<long long>(bytes.size()));
}

// Text-like data that deflate shrinks a lot.
Bytes compressible(long long bytes)
{
    Bytes out(static_cast<size_t>(bytes));
    for (long long i = 0; i < bytes; ++i) out[i] = static_cast<unsigned char>("grain data "[i % 11] + (i / 997) % 3);
    return out;
}

// Inflates with zlib itself, independent of the library's engines.
Bytes zlibUncompress(const unsigned char* data, long long bytes, long long expected)
{
    Bytes out(static_cast<size_t>(expected) + 16);
    uLongf length = static_cast<uLongf>(out.size());
    EXPECT_EQ(Z_OK, uncompress(out.data(), &length, data, static_cast<uLong>(bytes)));
    out.resize(length);
    return out;
}

} // namespace

TEST(DataPreparerTest, compressedGrainLayoutIsHeaderZlibStreamAndZeroPadding)
{
    kord::CVMDKDataPreparer preparer(grainSectors, true, 1);
    zu::TBuffer<unsigned char> source = buffer(compressible(grainBytes));
    zu::TBuffer<unsigned char> aux;
    zu::P<zu::TBuffer<unsigned char>> prepared = preparer.prepareGrainData(&source, 3, &aux);
    ASSERT_EQ(&aux, prepared.get()); // the caller's buffer carries the result

    const unsigned char* p = aux.getData();
    EXPECT_EQ(3u * grainSectors, zu::loadLE64(p)); // grain LBA: first virtual sector of grain 3
    long long size = static_cast<std::int32_t>(zu::loadLE32(p + 8));
    ASSERT_GT(size, 0);
    EXPECT_LT(size, grainBytes / 4);
    EXPECT_EQ((12 + size + 511) / 512 * 512, aux.getUsed());
    for (long long i = 12 + size; i < aux.getUsed(); ++i) ASSERT_EQ(0, p[i]) << "padding byte " << i;
    EXPECT_EQ(compressible(grainBytes), zlibUncompress(p + 12, size, grainBytes));

    zu::TBuffer<unsigned char> back;
    preparer.unprepareGrainData(&aux, &back);
    EXPECT_TRUE(back == source);

    // Patching the grain index moves the LBA and nothing else.
    zu::TBuffer<unsigned char> patched = aux;
    preparer.patchGrainIndexInPreparedGrainData(patched, 0x123456789LL);
    EXPECT_EQ(0x123456789ULL * grainSectors, zu::loadLE64(patched.getData()));
    EXPECT_EQ(0, std::memcmp(patched.getData() + 8, aux.getData() + 8, static_cast<size_t>(aux.getUsed() - 8)));

    // A short source is prepared as it is and expands zero-filled to a grain.
    zu::TBuffer<unsigned char> half = buffer(Bytes(grainBytes / 2, 0x5A));
    preparer.prepareGrainData(&half, 0, &aux);
    preparer.unprepareGrainData(&aux, &back);
    Bytes expected(grainBytes, 0);
    std::fill(expected.begin(), expected.begin() + grainBytes / 2, 0x5A);
    EXPECT_EQ(expected, Bytes(back.getData(), back.getData() + back.getUsed()));
}

TEST(DataPreparerTest, incompressibleDataStaysWithinStoredOnlyBound)
{
    kord::CVMDKDataPreparer preparer(grainSectors, true, 9);
    kord::CVMDKCompressor* compressor = preparer.getCompressor();
    int bound = compressor->getCompressedSizeUpperBound(static_cast<int>(grainBytes));
    EXPECT_EQ(0, (bound + 12) % 512) << "the bound fills the stored-only form's last sector";
    EXPECT_EQ((bound + 12) / 512, preparer.getMaxPreparedSectors());

    Bytes random = kordtest::pattern(grainBytes, 7);
    zu::TBuffer<unsigned char> source = buffer(random);
    zu::TBuffer<unsigned char> aux;
    preparer.prepareGrainData(&source, 1, &aux);
    long long size = zu::loadLE32(aux.getData() + 8);
    EXPECT_LE(size, bound);
    EXPECT_LE(aux.getUsed(), preparer.getMaxPreparedSectors() * 512);
    EXPECT_EQ(random, zlibUncompress(aux.getData() + 12, size, grainBytes));

    // Where the primary engine runs out of room, the stored-only engine
    // (zlib at level 0: one stored block, 11 bytes of framing) still fits,
    // and the grain is counted.
    Bytes target(grainBytes + 11);
    unsigned long long before = compressor->getFallbackCount();
    int stored = compressor->compressSingleStep(random.data(), static_cast<int>(grainBytes), target.data(),
                                                static_cast<int>(target.size()));
    EXPECT_EQ(before + 1, compressor->getFallbackCount());
    EXPECT_EQ(random, zlibUncompress(target.data(), stored, grainBytes));

    // Compressible data does not touch the fallback.
    zu::TBuffer<unsigned char> text = buffer(compressible(grainBytes));
    preparer.prepareGrainData(&text, 1, &aux);
    EXPECT_EQ(before + 1, compressor->getFallbackCount());
}

TEST(DataPreparerTest, levelZeroStoresOnlyAndUncompressedExtentsCopyNothing)
{
    kord::CVMDKDataPreparer stored(grainSectors, true, 0);
    zu::TBuffer<unsigned char> source = buffer(compressible(grainBytes));
    zu::TBuffer<unsigned char> aux;
    stored.prepareGrainData(&source, 0, &aux);
    long long size = zu::loadLE32(aux.getData() + 8);
    EXPECT_GT(size, grainBytes) << "level 0 must not compress";
    EXPECT_EQ(compressible(grainBytes), zlibUncompress(aux.getData() + 12, size, grainBytes));
    EXPECT_EQ(0u, stored.getCompressor()->getFallbackCount());
    EXPECT_EQ(1, kord::CVMDKCompressor(-1).getLevel());

    kord::CVMDKDataPreparer plain(grainSectors, false, 1);
    EXPECT_FALSE(plain.doesAnything());
    EXPECT_EQ(&source, plain.prepareGrainData(&source, 5, &aux).get());
    EXPECT_EQ(grainSectors, plain.getMaxPreparedSectors());
}

TEST(DataPreparerTest, badArgumentsAndCorruptStreamsAreRefused)
{
    kord::CVMDKDataPreparer preparer(grainSectors, true, 1);
    zu::TBuffer<unsigned char> aux;
    zu::TBuffer<unsigned char> tooBig(grainBytes + 1);
    const std::string prefix = "Invalid argument passed to 'CVMDKDataPreparer::prepareGrainData': ";
    EXPECT_EQ(prefix + "pSourceBuffer must not be NULL.",
              msg(expectThrows<zu::CInvalidArgError>([&] { preparer.prepareGrainData(nullptr, 0, &aux); })));
    EXPECT_EQ(prefix + "pAuxBuffer must not be NULL.",
              msg(expectThrows<zu::CInvalidArgError>([&] { preparer.prepareGrainData(&tooBig, 0, nullptr); })));
    EXPECT_EQ(prefix + "source buffer is bigger than grain size (8193)..",
              msg(expectThrows<zu::CInvalidArgError>([&] { preparer.prepareGrainData(&tooBig, 0, &aux); })));
    EXPECT_THROW(kord::CVMDKCompressor(13), zu::CInvalidArgError);

    zu::TBuffer<unsigned char> garbage = buffer(kordtest::pattern(1024, 3));
    zu::TBuffer<unsigned char> out;
    EXPECT_THROW(preparer.unprepareGrainData(&garbage, &out), zu::CError);
}

TEST(DataPreparerTest, grainIVXorsGrainIndexIntoDiskIV)
{
    zu::TBuffer<unsigned char> diskIV = buffer(kordtest::pattern(16, 11));
    zu::TBuffer<unsigned char> iv;
    kord::CVMDKGrain::makeGrainEncryptIV(iv, diskIV, 0);
    EXPECT_TRUE(iv == diskIV);

    kord::CVMDKGrain::makeGrainEncryptIV(iv, diskIV, 1);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(diskIV[i] ^ (i % 8 == 0 ? 1 : 0), iv[i]) << "byte " << i;

    // Eight little-endian bytes, repeated; a negative index is sign-extended.
    kord::CVMDKGrain::makeGrainEncryptIV(iv, diskIV, 0x0102030405060708LL);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(diskIV[i] ^ (8 - i % 8), iv[i]) << "byte " << i;
    kord::CVMDKGrain::makeGrainEncryptIV(iv, diskIV, -1);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(diskIV[i] ^ 0xFF, iv[i]) << "byte " << i;
}
