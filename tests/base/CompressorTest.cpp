// The deflate engines behind compressed grains: zlib-format streams that
// either engine (and any other VMDK reader) can expand, the fixed size of
// stored-only output, and the errors for corrupt or oversized data.
#include "base/CDeflateCompressor.h"

#include "common/ExtentTestUtil.h"

#include <cstdint>
#include <vector>

using namespace kordtest;

namespace {

Bytes compress(zu::ISimpleCompressor& c, const Bytes& in)
{
    Bytes out(static_cast<std::size_t>(c.getCompressedSizeUpperBound(static_cast<int>(in.size()))));
    int n = c.compressSingleStep(in.data(), static_cast<int>(in.size()), out.data(), static_cast<int>(out.size()));
    EXPECT_GT(n, 0) << c.getInternalDesc().toUTF8();
    out.resize(static_cast<std::size_t>(n < 0 ? 0 : n));
    return out;
}

Bytes decompress(zu::ISimpleCompressor& c, const Bytes& in, std::size_t capacity)
{
    Bytes out(capacity + 1); // one spare byte, so that a zero capacity still has a valid pointer
    int n = c.decompressSingleStep(in.data(), static_cast<int>(in.size()), out.data(), static_cast<int>(capacity));
    out.resize(static_cast<std::size_t>(n));
    return out;
}

zu::CIOError expectBadData(zu::ISimpleCompressor& c, const Bytes& in, std::size_t capacity)
{
    auto e = kordtest::expectError([&] { decompress(c, in, capacity); }, "Deflate data could not be decompressed.",
                                   zu::CIOError::codeInvalidData);
    EXPECT_FALSE(e.getProp("engineError").empty());
    return e;
}

} // namespace

// The same object serves block after block, compressing and expanding in
// turn, also after a target too small; each stream also expands with the
// other engine, and with the padding of its grain (and more) after it. (That zlib itself reads the
// streams is checked with the prepared grains.)
TEST(Compressor, roundTripAcrossEnginesStoredBlocksOfKnownSizeAndCorruptDataFails)
{
    zu::CLibdeflateCompressor fast(1), best(12), storedFast(0);
    zu::CZlibCompressor zlibFast(1), zlibBest(9), stored(0);
    for (zu::ISimpleCompressor* c : std::vector<zu::ISimpleCompressor*>{&fast, &best, &storedFast, &zlibFast, &zlibBest, &stored}) {
        zu::ISimpleCompressor& other = c == &fast || c == &best || c == &storedFast
                                           ? static_cast<zu::ISimpleCompressor&>(zlibFast) : fast;
        // A target too small fails with -1 and leaves the engine ready for the blocks below.
        Bytes random = kordtest::pattern(10000, 4), small(9000);
        EXPECT_EQ(c->compressSingleStep(random.data(), 10000, small.data(), 9000), -1) << c->getInternalDesc().toUTF8();
        expectThrows<zu::CInvalidArgError>([&] { c->getCompressedSizeUpperBound(INT32_MAX); });
        for (const Bytes& in : {Bytes(), Bytes(1, 0x5A), Bytes(65536, 0), kordtest::pattern(65536, 1), compressible(200000, 5),
                                kordtest::pattern(3 * 65535 + 17, 2)}) {
            Bytes z = compress(*c, in);
            EXPECT_EQ(decompress(*c, z, in.size() + 4096), in) << c->getInternalDesc().toUTF8() << " " << in.size();
            EXPECT_EQ(decompress(other, z, in.size()), in) << "expanded by " << other.getInternalDesc().toUTF8();
            z.resize((z.size() + 12 + 511) / 512 * 512 - 12 + 100, 0xFF);
            EXPECT_EQ(decompress(*c, z, in.size()), in) << "bytes after the stream are ignored";
        }
    }
    EXPECT_LT(compress(fast, Bytes(65536, 0)).size(), 200u);
    for (int level : {-1, 13}) expectThrows<zu::CInvalidArgError>([&] { zu::CLibdeflateCompressor bad(level); });
    for (int level : {-1, 10}) expectThrows<zu::CInvalidArgError>([&] { zu::CZlibCompressor bad(level); });

    // Stored blocks hold at most 65535 bytes: size = n + 2 header + 4 Adler + 5
    // per block, which the fallback's size bound relies on.
    for (std::size_t n : {std::size_t(0), std::size_t(1), std::size_t(65535), std::size_t(65536), std::size_t(1) << 20}) {
        Bytes z = compress(stored, kordtest::pattern(n, 3));
        std::size_t blocks = n == 0 ? 1 : (n + 65534) / 65535;
        EXPECT_EQ(z.size(), n + 6 + 5 * blocks) << n;
        EXPECT_EQ(z[2], n <= 65535 ? 1 : 0) << "a stored block header, final only when it is the only one";
        EXPECT_LE(z.size(), static_cast<std::size_t>(stored.getCompressedSizeUpperBound(static_cast<int>(n))));
    }

    // Corrupt, truncated and oversized data fail.
    zu::CLibdeflateCompressor libdeflate(1);
    zu::CZlibCompressor zlib(1);
    Bytes in = compressible(20000, 5);
    Bytes z = compress(zlib, in);
    Bytes badHeader = z, badChecksum = z, truncated(z.begin(), z.begin() + static_cast<long>(z.size() / 2));
    badHeader[0] = 0x79;
    badChecksum.back() ^= 1;
    for (const auto& [data, capacity] : std::vector<std::pair<Bytes, std::size_t>>{
             {badHeader, in.size()}, {badChecksum, in.size()}, {truncated, in.size()}, {Bytes(), in.size()},
             {z, in.size() - 1}, {z, 0}}) {
        expectBadData(libdeflate, data, capacity);
        expectBadData(zlib, data, capacity);
    }
    EXPECT_EQ(expectBadData(libdeflate, z, 100).getProp("targetCapacity"), "100");
    // The object is still usable after a failure.
    EXPECT_EQ(decompress(zlib, z, in.size()), in);
    EXPECT_EQ(decompress(libdeflate, z, in.size()), in);
}
