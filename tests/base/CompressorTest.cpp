// The deflate engines behind compressed grains: zlib-format streams that
// either engine (and any other VMDK reader) can expand, the fixed size of
// stored-only output, and the errors for corrupt or oversized data.
#include "base/CDeflateCompressor.h"

#include "common/TestUtil.h"

#include <cstdint>
#include <vector>

using kordtest::expectThrows;
using kordtest::msg;
using Bytes = std::vector<unsigned char>;

namespace {

// Compressible but not trivial: text-like runs with some noise.
Bytes textLike(std::size_t n)
{
    Bytes noise = kordtest::pattern(n, 7);
    Bytes out(n);
    for (std::size_t i = 0; i < n; ++i) out[i] = static_cast<unsigned char>((i / 5) % 26 + 'a' + (noise[i] % 16 == 0));
    return out;
}

std::vector<Bytes> samples()
{
    return {Bytes(), Bytes(1, 0x5A), Bytes(65536, 0), kordtest::pattern(65536, 1), textLike(200000),
            kordtest::pattern(3 * 65535 + 17, 2)};
}

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

std::uint32_t adler32(const Bytes& data)
{
    std::uint32_t a = 1, b = 0;
    for (unsigned char c : data) {
        a = (a + c) % 65521;
        b = (b + a) % 65521;
    }
    return (b << 16) | a;
}

// Checks the RFC 1950 frame: a header the format accepts, and the
// big-endian Adler-32 of the original data as the last four bytes.
void expectZlibFrame(const Bytes& stream, const Bytes& original)
{
    ASSERT_GE(stream.size(), 6u);
    EXPECT_EQ(stream[0], 0x78) << "deflate with a 32 KiB window";
    EXPECT_EQ(((stream[0] << 8) | stream[1]) % 31, 0) << "header check bits";
    EXPECT_EQ(stream[1] & 0x20, 0) << "no preset dictionary";
    std::size_t e = stream.size();
    std::uint32_t trailer = (std::uint32_t(stream[e - 4]) << 24) | (std::uint32_t(stream[e - 3]) << 16) |
                            (std::uint32_t(stream[e - 2]) << 8) | stream[e - 1];
    EXPECT_EQ(trailer, adler32(original));
}

zu::CIOError expectBadData(zu::ISimpleCompressor& c, const Bytes& in, std::size_t capacity)
{
    auto e = expectThrows<zu::CIOError>([&] { decompress(c, in, capacity); });
    EXPECT_EQ(e.getCode(), zu::CIOError::codeInvalidData);
    EXPECT_EQ(msg(e), "Deflate data could not be decompressed.");
    EXPECT_FALSE(e.getProp("engineError").empty());
    return e;
}

} // namespace

TEST(Compressor, roundTripAndZlibFrameForEveryEngine)
{
    zu::CLibdeflateCompressor fast(1), best(12), storedFast(0);
    zu::CZlibCompressor zlibFast(1), zlibBest(9), stored(0);
    for (zu::ISimpleCompressor* c : std::vector<zu::ISimpleCompressor*>{&fast, &best, &storedFast, &zlibFast, &zlibBest, &stored}) {
        // The same object serves block after block, compressing and expanding in turn.
        for (const Bytes& in : samples()) {
            Bytes z = compress(*c, in);
            expectZlibFrame(z, in);
            EXPECT_EQ(decompress(*c, z, in.size()), in) << c->getInternalDesc().toUTF8() << " " << in.size();
            EXPECT_EQ(decompress(*c, z, in.size() + 4096), in) << "output shorter than the capacity";
        }
    }
    EXPECT_LT(compress(fast, Bytes(65536, 0)).size(), 200u);
    EXPECT_EQ(fast.getInternalDesc(), "libdeflate-zlib-1");
    EXPECT_EQ(best.getInternalDesc(), "libdeflate-zlib-12");
    EXPECT_EQ(stored.getInternalDesc(), "zlib-0");
    EXPECT_EQ(zlibBest.getInternalDesc(), "zlib-9");
}

TEST(Compressor, streamsOfOneEngineExpandWithTheOther)
{
    zu::CLibdeflateCompressor libdeflate(6);
    zu::CZlibCompressor zlib(6);
    for (const Bytes& in : samples()) {
        EXPECT_EQ(decompress(zlib, compress(libdeflate, in), in.size()), in);
        EXPECT_EQ(decompress(libdeflate, compress(zlib, in), in.size()), in);
    }
}

TEST(Compressor, zlibLevelZeroIsStoredBlocksOfKnownSize)
{
    zu::CZlibCompressor stored(0);
    for (std::size_t n : {std::size_t(0), std::size_t(1), std::size_t(65535), std::size_t(65536), std::size_t(3 * 65535 + 1),
                          std::size_t(1) << 20}) {
        Bytes in = kordtest::pattern(n, 3);
        Bytes z = compress(stored, in);
        ASSERT_FALSE(z.empty());
        // Walk the deflate blocks: each is byte aligned, BTYPE 00, then
        // LEN and its complement NLEN (little-endian), then LEN raw bytes.
        Bytes payload;
        std::size_t pos = 2, blocks = 0;
        bool final = false;
        while (!final) {
            ASSERT_LE(pos + 5, z.size() - 4);
            unsigned head = z[pos];
            EXPECT_EQ(head & 0xFE, 0u) << "stored block, no other bits";
            final = (head & 1) != 0;
            unsigned len = z[pos + 1] | (z[pos + 2] << 8);
            unsigned nlen = z[pos + 3] | (z[pos + 4] << 8);
            EXPECT_EQ(len ^ 0xFFFFu, nlen);
            ASSERT_LE(pos + 5 + len, z.size() - 4);
            payload.insert(payload.end(), z.begin() + static_cast<long>(pos + 5), z.begin() + static_cast<long>(pos + 5 + len));
            pos += 5 + len;
            ++blocks;
        }
        EXPECT_EQ(pos + 4, z.size());
        EXPECT_EQ(payload, in);
        // Blocks of at most 65535 bytes: size = n + 2 header + 4 Adler + 5 per block.
        std::size_t expectedBlocks = n == 0 ? 1 : (n + 65534) / 65535;
        EXPECT_EQ(blocks, expectedBlocks) << n;
        EXPECT_EQ(z.size(), n + 6 + 5 * expectedBlocks) << n;
        EXPECT_LE(z.size(), static_cast<std::size_t>(stored.getCompressedSizeUpperBound(static_cast<int>(n))));
    }
}

TEST(Compressor, bytesAfterTheStreamAreIgnored)
{
    zu::CLibdeflateCompressor libdeflate(1);
    zu::CZlibCompressor zlib(1);
    Bytes in = textLike(5000);
    for (zu::ISimpleCompressor* c : std::vector<zu::ISimpleCompressor*>{&libdeflate, &zlib}) {
        Bytes z = compress(*c, in);
        z.resize((z.size() + 12 + 511) / 512 * 512 - 12, 0); // grain padding
        EXPECT_EQ(decompress(*c, z, in.size()), in);
        z.insert(z.end(), 100, 0xFF);
        EXPECT_EQ(decompress(*c, z, in.size()), in);
    }
}

TEST(Compressor, corruptTruncatedAndOversizedDataFail)
{
    zu::CLibdeflateCompressor libdeflate(1);
    zu::CZlibCompressor zlib(1);
    Bytes in = textLike(20000);
    Bytes z = compress(zlib, in);

    Bytes badHeader = z;
    badHeader[0] = 0x79;
    EXPECT_EQ(expectBadData(libdeflate, badHeader, in.size()).getProp("engineError"), "LIBDEFLATE_BAD_DATA");
    EXPECT_EQ(expectBadData(zlib, badHeader, in.size()).getProp("engineError"), "incorrect header check");

    Bytes badChecksum = z;
    badChecksum.back() ^= 1;
    EXPECT_EQ(expectBadData(libdeflate, badChecksum, in.size()).getProp("engineError"), "LIBDEFLATE_BAD_DATA");
    EXPECT_EQ(expectBadData(zlib, badChecksum, in.size()).getProp("engineError"), "incorrect data check");

    Bytes truncated(z.begin(), z.begin() + static_cast<long>(z.size() / 2));
    expectBadData(libdeflate, truncated, in.size());
    EXPECT_EQ(expectBadData(zlib, truncated, in.size()).getProp("engineError"), "Z_BUF_ERROR: the stream ends early");
    expectBadData(zlib, Bytes(), in.size());
    expectBadData(libdeflate, Bytes(), in.size());

    auto e = expectBadData(libdeflate, z, in.size() - 1);
    EXPECT_EQ(e.getProp("engineError"), "LIBDEFLATE_INSUFFICIENT_SPACE");
    EXPECT_EQ(e.getProp("targetCapacity"), std::to_string(in.size() - 1));
    EXPECT_EQ(expectBadData(zlib, z, in.size() - 1).getProp("engineError"), "Z_BUF_ERROR: output exceeds the capacity");
    expectBadData(zlib, z, 0);

    // The object is still usable after a failure.
    EXPECT_EQ(decompress(zlib, z, in.size()), in);
    EXPECT_EQ(decompress(libdeflate, z, in.size()), in);
}

TEST(Compressor, targetTooSmallAndBadArguments)
{
    zu::CLibdeflateCompressor libdeflate(6);
    zu::CZlibCompressor zlib(6), stored(0);
    Bytes in = kordtest::pattern(10000, 4);
    Bytes out(9000);
    for (zu::ISimpleCompressor* c : std::vector<zu::ISimpleCompressor*>{&libdeflate, &zlib, &stored}) {
        EXPECT_EQ(c->compressSingleStep(in.data(), 10000, out.data(), 9000), -1) << c->getInternalDesc().toUTF8();
        EXPECT_EQ(c->compressSingleStep(in.data(), 10000, nullptr, 0), -1);
        expectThrows<zu::CInvalidArgError>([&] { c->compressSingleStep(in.data(), -1, out.data(), 9000); });
        expectThrows<zu::CInvalidArgError>([&] { c->decompressSingleStep(in.data(), 10, out.data(), -1); });
        expectThrows<zu::CInvalidArgError>([&] { c->getCompressedSizeUpperBound(-1); });
        expectThrows<zu::CInvalidArgError>([&] { c->getCompressedSizeUpperBound(INT32_MAX); });
        // A too-small attempt leaves the engine ready for the next block.
        EXPECT_EQ(decompress(*c, compress(*c, in), in.size()), in);
    }
    for (int level : {-1, 13}) expectThrows<zu::CInvalidArgError>([&] { zu::CLibdeflateCompressor bad(level); });
    for (int level : {-1, 10}) expectThrows<zu::CInvalidArgError>([&] { zu::CZlibCompressor bad(level); });
    auto e = expectThrows<zu::CInvalidArgError>([] { zu::CZlibCompressor bad(10); });
    EXPECT_EQ(e.getProp("level"), "10");
}
