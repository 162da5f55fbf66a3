// The layout of a new sparse extent file, checked byte for byte against
// images built here by hand, on both file systems; the markers and padding
// it is made of; and the guarantee that a failed creation leaves no file and
// never touches one that existed.
#include "common/ExtentTestUtil.h"

#include "format/VMDKMarker.h"

#include <cstring>

using namespace kordtest;

namespace {

// The expected contents of a file, written sector by sector.
class ExpectedImage {
public:
    explicit ExpectedImage(long long sectors) : bytes(static_cast<size_t>(sectors) * 512, 0) {}
    unsigned char* sector(long long s) { return &bytes.at(static_cast<size_t>(s) * 512); }

    // The header fields that differ between the layouts under test.
    void header(long long s, bool streamOptimized, long long grains, long long grainSize, long long rgdOffset,
                long long gdOffset, long long overHead)
    {
        unsigned char* p = sector(s);
        zu::storeLE32(p + 0, 0x564D444B);                          // magic "KDMV"
        zu::storeLE32(p + 4, streamOptimized ? 3 : 1);             // version
        zu::storeLE32(p + 8, streamOptimized ? 0x30003 : 0x3);     // flags
        zu::storeLE32(p + 44, 512);                                // numGTEsPerGT
        // capacity, grainSize, (28, 36: no descriptor area), rgdOffset, gdOffset, overHead
        for (auto [at, value] : {std::pair{12, grains * grainSize}, {20, grainSize}, {48, rgdOffset}, {56, gdOffset},
                                 {64, overHead}})
            zu::storeLE64(p + at, static_cast<std::uint64_t>(value));
        std::memcpy(p + 73, "\n \r\n", 4);                         // line-end check
        zu::storeLE16(p + 77, streamOptimized ? 1 : 0);            // compressAlgorithm; pad stays zero
    }
    // value (8), size 0 (4), type (4), zeros.
    void marker(long long s, std::uint32_t type, long long value)
    {
        zu::storeLE64(sector(s), static_cast<std::uint64_t>(value));
        zu::storeLE32(sector(s) + 12, type);
    }
    // 32-bit directory entries first, first + step, ... (running on into the next sectors)
    void entries(long long s, long long count, long long first, long long step)
    {
        for (long long i = 0; i < count; ++i)
            zu::storeLE32(sector(s) + 4 * i, static_cast<std::uint32_t>(first + step * i));
    }

    Bytes bytes;
};

const zu::TBuffer<unsigned char> noKeyHash;

class EmptyLayoutTest : public kordtest::FileSystemTest {
protected:
    void create(bool streamOptimized, long long grainCount, long long grainSize,
                kord::CVMDKDescriptor* descriptor = nullptr, long long descriptorSectors = 0,
                const zu::TBuffer<unsigned char>& keyHash = noKeyHash, long long zeroBytes = 65536)
    {
        zu::TBuffer<unsigned char> zeros;
        zeros.setUsedFill(zeroBytes, 0);
        kord::createEmptyVMDKSparseExtentFile(fs, uri("x.vmdk"), streamOptimized, grainCount * grainSize, grainSize,
                                              zeros, descriptor, descriptorSectors, keyHash);
    }
    Bytes file() { return kordtest::readAll(fs, uri("x.vmdk")); }
};

} // namespace

TEST_P(EmptyLayoutTest, plainAndStreamOptimizedLayoutsByteForByte)
{
    // Redundant directory at sector 1, its tables right after it, then the
    // directory and its tables; zeros up to the grain boundary.
    const struct { long long grains, grainSize, tables, dirSectors, gdOffset, overHead; } cases[] = {
        {4096, 128, 8, 1, 34, 128},       // 8 tables at 2, 6, 10 ... 30
        {1, 8, 1, 1, 6, 16},              // one grain still gets a table
        {513, 8, 2, 1, 10, 24},           // one grain more than a table holds
        {129 * 512, 8, 129, 2, 519, 1040} // the directory needs a second sector, zero after its last entry
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.grains);
        create(false, c.grains, c.grainSize);
        ExpectedImage expected(c.overHead);
        expected.header(0, false, c.grains, c.grainSize, 1, c.gdOffset, c.overHead);
        expected.entries(1, c.tables, 1 + c.dirSectors, 4);
        expected.entries(c.gdOffset, c.tables, c.gdOffset + c.dirSectors, 4);
        EXPECT_EQ(expected.bytes, file());
        fs->deleteFile(uri("x.vmdk"), false);
    }

    // Stream-optimized: markers and footer.
    create(true, 4096, 128, nullptr, 0, noKeyHash, 512); // padding longer than the zero buffer
    ExpectedImage expected(131);
    expected.header(0, true, 4096, 128, 2, 44, 128);
    expected.marker(1, 2, 1);                     // GD marker, value = directory sectors
    expected.entries(2, 8, 4, 5);                 // redundant directory: F = 3, entries F+1, F+6, ...
    for (int i = 0; i < 8; ++i) expected.marker(3 + 5 * i, 1, 4); // GT marker before each 4-sector table
    expected.marker(43, 2, 1);
    expected.entries(44, 8, 46, 5);               // directory: F = 45
    for (int i = 0; i < 8; ++i) expected.marker(45 + 5 * i, 1, 4);
    expected.marker(85, 0x18349002, 1);           // slot-size directory marker
    expected.entries(86, 8, 88, 3);               // F = 87: entries F+1, F+4, ...
    for (int i = 0; i < 8; ++i) expected.marker(87 + 3 * i, 0x18349001, 2);
    // 111..127 zero padding, overHead 128
    expected.marker(128, 3, 1);                   // footer marker
    expected.header(129, true, 4096, 128, 2, 44, 128); // footer: the same bytes as the header
    expected.marker(130, 0, 0);                   // end of stream
    EXPECT_EQ(expected.bytes, file());
}

TEST_P(EmptyLayoutTest, embeddedDescriptorAndKeyHashShiftTheMetadataAndFailedCreationLeavesNoFile)
{
    kord::CVMDKDescriptor descriptor;   // even an empty one gets the whole area it is given
    zu::TBuffer<unsigned char> keyHash;
    keyHash.setUsedFill(32, 0x5A);
    keyHash[31] = 0x01;
    create(false, 1, 8, &descriptor, 20, keyHash);

    // The plain header with the extended magic, the descriptor area at
    // sector 1, the metadata after it (rgd 21, gd 21 + 1 + 4, overHead 31
    // rounded up to a grain), and encAlg 1, encKeyHashAlg 1, the hash's size
    // and the hash.
    ExpectedImage expected(1);
    expected.header(0, false, 1, 8, 21, 26, 32);
    unsigned char* p = expected.sector(0);
    zu::storeLE32(p, 0x05644B45);
    zu::storeLE64(p + 28, 1);
    zu::storeLE64(p + 36, 20);
    p[79] = p[81] = 1;
    p[83] = 32;
    std::copy(keyHash.getData(), keyHash.getData() + 32, p + 85);
    const Bytes bytes = file();
    ASSERT_EQ(32u * 512, bytes.size());
    EXPECT_EQ(expected.bytes, kordtest::slice(bytes, 0, 512));

    // A failed creation leaves no file and never touches one that existed.
    const Bytes precious = kordtest::pattern(1000, 7);
    kordtest::writeAll(fs, uri("x.vmdk"), precious);
    kordtest::LogCapture log;
    expectThrows<zu::CFileSystemError>([&] { create(false, 16, 8); });
    EXPECT_EQ(precious, file());
    EXPECT_TRUE(log.lines.empty());
    fs->deleteFile(uri("x.vmdk"), false);

    // The header is written before the descriptor turns out too long.
    descriptor.setCreateType(zu::String(std::string(600, 'x')));
    expectThrows<zu::CIOError>([&] { create(false, 16, 8, &descriptor, 1); });
    EXPECT_FALSE(fs->exists(uri("x.vmdk")));
    EXPECT_EQ(1u, log.lines.size());
    EXPECT_TRUE(log.contains("Error in CVMDKDisk::createEmptySparseExtentFile ('" + uri("x.vmdk").toString(true).toUTF8() +
                             "'). Deleting file and letting error through."));

    // Arguments that cannot make a file are refused before anything is
    // created, a zero buffer smaller than the descriptor area among them.
    auto e = expectThrows<zu::CInvalidArgError>([&] { create(true, 16, 8, &descriptor, 20, noKeyHash, 512); });
    EXPECT_NE(std::string::npos, msg(e).find("zero buffer must be at least as large as the descriptor area"));
    for (auto [grains, grainSize] : {std::pair<long long, long long>{0, 8}, {16, 0}, {-1, 8}, {1LL << 40, 128}})
        expectThrows<zu::CInvalidArgError>([&, grains = grains, grainSize = grainSize] { create(false, grains, grainSize); });
    EXPECT_FALSE(fs->exists(uri("x.vmdk")));
}

KORD_INSTANTIATE_FS(EmptyLayoutTest);

TEST(VMDKMarkerTest, markerRecognisedOnlyWithZeroSizeAndZeroTail)
{
    Bytes marker(512, 0);
    zu::storeLE64(&marker[0], static_cast<std::uint64_t>(-2));
    zu::storeLE32(&marker[12], kord::vmdkMarkerSlotSizeDirectory);
    long long value = 99;
    EXPECT_TRUE(kord::isVMDKMarker(marker.data(), kord::vmdkMarkerSlotSizeDirectory, &value));
    EXPECT_EQ(-2, value);
    // Another type, a data size at 8 (a compressed grain) or anything in the tail: not this marker.
    for (size_t at : {12, 8, 300, 511}) {
        Bytes other = marker;
        other[at] ^= 0x20;
        value = 99;
        EXPECT_FALSE(kord::isVMDKMarker(other.data(), kord::vmdkMarkerSlotSizeDirectory, &value)) << at;
        EXPECT_EQ(0, value);
    }
}
