// The 512-byte sparse extent header: hand-built images load into the right
// fields and store back byte for byte, and damaged headers fail with the
// right code and message. The layout of a new sparse extent file, checked
// byte for byte against images built here by hand, on both file systems; the
// markers and padding it is made of; and the guarantee that a failed creation
// leaves no file and never touches one that existed.
#include "common/ExtentTestUtil.h"

#include "base/CBufferStream.h"
#include "base/CDataInStream.h"
#include "base/CDataOutStream.h"
#include "format/CVMDKSparseExtentHeader.h"
#include "format/VMDKMarker.h"

#include <array>
#include <climits>
#include <cstring>

using namespace kordtest;
using kord::CVMDKSparseExtentHeader;

namespace {

// magic "KDMV", version, flags, then capacity, grainSize, descriptorOffset,
// descriptorSize (12..43), numGTEsPerGT = 512 (44), rgdOffset, gdOffset,
// overHead (48..71), the line-end check (73) and compressAlgorithm (77).
void storeHeader(unsigned char* p, std::uint32_t version, std::uint32_t flags, const std::array<long long, 7>& fields,
                 std::uint16_t compressAlgorithm)
{
    zu::storeLE32(p + 0, 0x564D444B);
    zu::storeLE32(p + 4, version);
    zu::storeLE32(p + 8, flags);
    zu::storeLE32(p + 44, 512);
    for (int i = 0; i < 7; ++i) zu::storeLE64(p + 12 + 8 * i + (i >= 4 ? 4 : 0), static_cast<std::uint64_t>(fields[i]));
    std::memcpy(p + 73, "\n \r\n", 4);
    zu::storeLE16(p + 77, compressAlgorithm);
}

// A standard header with a distinct value in every field, so that a field
// read from or written to the wrong offset shows; overHead has its sign bit
// set, uncleanShutdown is 1, and the pad is kept as read.
Bytes standardImage(std::uint32_t flags)
{
    Bytes b(512, 0);
    for (int i = 79; i < 512; ++i) b[i] = static_cast<unsigned char>(i * 7);
    storeHeader(b.data(), 3, flags, {0x0102030405060708, 128, 1, 20, 21, 0x1122334455, LLONG_MIN + 1}, 0xBEEF);
    b[72] = 1;
    return b;
}

// An extended header carrying a key hash of `hashBytes` bytes.
Bytes extendedImage(int hashBytes)
{
    Bytes b = standardImage(0x3);
    zu::storeLE32(&b[0], 0x05644B45);        // extended magic, bytes 45 4B 64 05
    zu::storeLE16(&b[79], 1);                // encAlg AES-256-CBC
    zu::storeLE16(&b[81], 1);                // encKeyHashAlg SHA-256
    zu::storeLE16(&b[83], static_cast<std::uint16_t>(hashBytes)); // encKeyHashSize
    for (int i = 0; i < hashBytes && 85 + i < 512; ++i) b[85 + i] = static_cast<unsigned char>(0xA0 + i);
    return b;
}

void load(CVMDKSparseExtentHeader& header, const Bytes& image)
{
    zu::CDataInStream in(
        zu::newObj<zu::CBufferStream>(zu::newObj<zu::TBuffer<unsigned char>>(image.data(), image.size())));
    header.load(in);
}

Bytes roundTrip(CVMDKSparseExtentHeader& header, const Bytes& image)
{
    load(header, image);
    zu::P<zu::TBuffer<unsigned char>> data = zu::newObj<zu::TBuffer<unsigned char>>();
    zu::CDataOutStream out(zu::newObj<zu::CBufferStream>(data));
    header.store(out);
    return Bytes(data->getData(), data->getData() + data->getUsed());
}

zu::CIOError loadFails(const Bytes& image)
{
    CVMDKSparseExtentHeader header;
    return expectThrows<zu::CIOError>([&] { load(header, image); });
}

// The expected contents of a file, written sector by sector.
class ExpectedImage {
public:
    explicit ExpectedImage(long long sectors) : bytes(static_cast<size_t>(sectors) * 512, 0) {}
    unsigned char* sector(long long s) { return &bytes.at(static_cast<size_t>(s) * 512); }

    // The header of a layout without a descriptor area.
    void header(long long s, bool streamOptimized, long long grains, long long grainSize, long long rgdOffset,
                long long gdOffset, long long overHead)
    {
        storeHeader(sector(s), streamOptimized ? 3 : 1, streamOptimized ? 0x30003 : 0x3,
                    {grains * grainSize, grainSize, 0, 0, rgdOffset, gdOffset, overHead}, streamOptimized ? 1 : 0);
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
    unsigned char* p = expected.sector(0);
    storeHeader(p, 1, 0x3, {8, 8, 1, 20, 21, 26, 32}, 0);
    zu::storeLE32(p, 0x05644B45);
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

TEST(SparseExtentHeaderTest, fieldsAtWrongOffsetsLostPadKeyHashOrIgnoredFlagsBreakRoundTrip)
{
    // The stores are checked byte for byte in the layout tests, and each
    // field's own offset by the hostile extents that patch it; here the pad
    // and the sign bit come back as read.
    CVMDKSparseExtentHeader header;
    EXPECT_EQ(standardImage(0x3), roundTrip(header, standardImage(0x3)));

    // Without bit 1 there is no redundant directory, whatever offset 48 holds.
    load(header, standardImage(0x1));
    EXPECT_EQ(0, header.rgdOffset);
    EXPECT_EQ(0x1122334455, header.gdOffset);

    // Without bit 0 any four line-end bytes pass, and the store writes the real ones.
    Bytes mangled = standardImage(0x2);
    std::copy_n("\r\n\r\n", 4, &mangled[73]);
    EXPECT_EQ(standardImage(0x2), roundTrip(header, mangled));
    // With bit 0 the same bytes are a transfer in text mode.
    zu::storeLE32(&mangled[8], 0x3);
    kordtest::expectError([&] { load(header, mangled); },
                          "VMDK image is corrupted (probably by having been transferred in FTP ASCII mode).",
                          zu::CIOError::codeInvalidData);

    // An extended header: the key hash and the pad after it.
    EXPECT_EQ(extendedImage(32), roundTrip(header, extendedImage(32)));
    EXPECT_TRUE(header.extended);
    EXPECT_EQ(32, header.encKeyHash.getUsed());
    EXPECT_EQ(395, header.padding.getUsed());

    // The longest hash that fits leaves no pad; one byte more is refused.
    EXPECT_EQ(extendedImage(427), roundTrip(header, extendedImage(427)));
    EXPECT_EQ(zu::CIOError::codeInvalidData, loadFails(extendedImage(428)).getCode());

    // A standard header loaded after an extended one gets its full pad back.
    EXPECT_EQ(standardImage(0x3), roundTrip(header, standardImage(0x3)));
}

TEST(SparseExtentHeaderTest, badMagicReportsNumberAndShortHeaderIsEndOfData)
{
    // Unsigned: a magic with the top bit set is not a negative number.
    Bytes image = standardImage(0x3);
    for (auto [magic, number] : {std::pair{0x564D4443u, "1447904323"}, {0xFFFFFFFEu, "4294967294"}}) {
        zu::storeLE32(&image[0], magic);
        EXPECT_EQ(number, loadFails(image).getProp("num").toUTF8());
    }

    // A header cut short, and an extended one whose key hash runs past the end.
    const Bytes standard = standardImage(0x3), extended = extendedImage(32);
    EXPECT_EQ(zu::CIOError::codeEndOfData, loadFails(Bytes(standard.begin(), standard.begin() + 511)).getCode());
    EXPECT_EQ(zu::CIOError::codeEndOfData, loadFails(Bytes(extended.begin(), extended.begin() + 100)).getCode());
}

TEST(VMDKMarkerTest, markerRecognisedOnlyWithItsTypeZeroSizeAndZeroTail)
{
    Bytes marker(512, 0);
    zu::storeLE64(&marker[0], static_cast<std::uint64_t>(-2));
    zu::storeLE32(&marker[12], kord::vmdkMarkerSlotSizeDirectory);
    // A bit flipped in the value, the type, a data size at 8 (a compressed
    // grain) or the tail: only the first is still this marker.
    for (auto [at, value] : {std::pair<size_t, long long>{0, -34}, {12, 0}, {8, 0}, {300, 0}, {511, 0}}) {
        Bytes other = marker;
        other[at] ^= 0x20;
        long long got = 99;
        EXPECT_EQ(value != 0, kord::isVMDKMarker(other.data(), kord::vmdkMarkerSlotSizeDirectory, &got)) << at;
        EXPECT_EQ(value, got);
    }
}
