// The layout of a new sparse extent file, checked byte for byte against
// images built here by hand, on both file systems; the markers and padding
// it is made of; and the guarantee that a failed creation leaves no file and
// never touches one that existed.
#include "common/TestUtil.h"

#include "base/CBufferStream.h"
#include "base/CDataInStream.h"
#include "base/Endian.h"
#include "base/Log.h"
#include "descriptor/CVMDKDescriptor.h"
#include "format/CVMDKLowLevelFileStream.h"
#include "format/CVMDKSparseExtentHeader.h"
#include "format/VMDKEmptyLayout.h"
#include "format/VMDKMarker.h"

#include <cstring>

using kordtest::expectThrows;
using kordtest::msg;
using kordtest::readAll;

namespace {

using Bytes = std::vector<unsigned char>;

// Header fields that differ between the layouts under test.
struct HeaderFields {
    bool streamOptimized;
    long long capacity, grainSize, descriptorOffset, descriptorSize, rgdOffset, gdOffset, overHead;
};

// The expected contents of a file, written sector by sector.
class ExpectedImage {
public:
    explicit ExpectedImage(long long sectors) : bytes(static_cast<size_t>(sectors) * 512, 0) {}
    unsigned char* sector(long long s) { return &bytes.at(static_cast<size_t>(s) * 512); }

    void header(long long s, const HeaderFields& h)
    {
        unsigned char* p = sector(s);
        zu::storeLE32(p + 0, 0x564D444B);                          // magic "KDMV"
        zu::storeLE32(p + 4, h.streamOptimized ? 3 : 1);           // version
        zu::storeLE32(p + 8, h.streamOptimized ? 0x30003 : 0x3);   // flags
        zu::storeLE64(p + 12, static_cast<std::uint64_t>(h.capacity));
        zu::storeLE64(p + 20, static_cast<std::uint64_t>(h.grainSize));
        zu::storeLE64(p + 28, static_cast<std::uint64_t>(h.descriptorOffset));
        zu::storeLE64(p + 36, static_cast<std::uint64_t>(h.descriptorSize));
        zu::storeLE32(p + 44, 512);                                // numGTEsPerGT
        zu::storeLE64(p + 48, static_cast<std::uint64_t>(h.rgdOffset));
        zu::storeLE64(p + 56, static_cast<std::uint64_t>(h.gdOffset));
        zu::storeLE64(p + 64, static_cast<std::uint64_t>(h.overHead));
        p[72] = 0;                                                 // uncleanShutdown
        std::memcpy(p + 73, "\n \r\n", 4);                         // line-end check
        zu::storeLE16(p + 77, h.streamOptimized ? 1 : 0);          // compressAlgorithm; pad stays zero
    }
    // value (8), size 0 (4), type (4), zeros.
    void marker(long long s, std::uint32_t type, long long value)
    {
        zu::storeLE64(sector(s), static_cast<std::uint64_t>(value));
        zu::storeLE32(sector(s) + 12, type);
    }
    // 32-bit directory entries first, first + step, ...
    void entries(long long s, long long count, long long first, long long step)
    {
        for (long long i = 0; i < count; ++i)
            zu::storeLE32(sector(s) + 4 * i, static_cast<std::uint32_t>(first + step * i));
    }

    Bytes bytes;
};

zu::TBuffer<unsigned char> zeroBuffer(long long bytes)
{
    zu::TBuffer<unsigned char> zeros;
    zeros.setUsedFill(bytes, 0);
    return zeros;
}

const zu::TBuffer<unsigned char> noKeyHash;

// Collects log lines while it lives.
class LogCapture {
public:
    LogCapture()
    {
        previous = zu::setLogSink([this](zu::LogLevel, const zu::String& line) { lines.push_back(line.toUTF8()); });
    }
    ~LogCapture() { zu::setLogSink(previous); }
    std::vector<std::string> lines;

private:
    zu::LogSink previous;
};

class EmptyLayoutTest : public kordtest::FileSystemTest {
protected:
    void create(bool streamOptimized, long long grainCount, long long grainSize,
                kord::CVMDKDescriptor* descriptor = nullptr, long long descriptorSectors = 0,
                const zu::TBuffer<unsigned char>& keyHash = noKeyHash, long long zeroBytes = 65536)
    {
        kord::createEmptyVMDKSparseExtentFile(fs, uri("x.vmdk"), streamOptimized, grainCount, grainSize,
                                              zeroBuffer(zeroBytes), descriptor, descriptorSectors, keyHash);
    }
    Bytes file() { return readAll(fs, uri("x.vmdk")); }
    kord::CVMDKSparseExtentHeader headerOnDisk(long long sector = 0)
    {
        zu::P<zu::IIOStream> stream = kord::openVMDKFileStream(fs, uri("x.vmdk"), zu::IIOStream::accessRead);
        stream->seek(sector * 512);
        zu::CDataInStream in(stream);
        kord::CVMDKSparseExtentHeader header;
        header.load(in);
        return header;
    }
};

} // namespace

// 4096 grains of 128 sectors: 8 tables, each directory one sector.
TEST_P(EmptyLayoutTest, plainLayoutByteForByte)
{
    create(false, 4096, 128);
    ExpectedImage expected(128);
    expected.header(0, {false, 4096 * 128, 128, 0, 0, 1, 34, 128});
    expected.entries(1, 8, 2, 4);   // redundant directory; its tables at 2..33
    expected.entries(34, 8, 35, 4); // directory; its tables at 35..66, zeros up to the grain boundary
    EXPECT_EQ(expected.bytes, file());

    kord::CVMDKSparseExtentHeader header = headerOnDisk();
    EXPECT_EQ(1, header.rgdOffset);
    EXPECT_EQ(34, header.gdOffset);
    EXPECT_EQ(128, header.overHead);
    EXPECT_EQ(0, header.descriptorOffset);
}

TEST_P(EmptyLayoutTest, streamOptimizedMarkersAndFooter)
{
    create(true, 4096, 128);
    ExpectedImage expected(131);
    const HeaderFields fields{true, 4096 * 128, 128, 0, 0, 2, 44, 128};
    expected.header(0, fields);
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
    expected.header(129, fields);                 // footer: the same bytes as the header
    expected.marker(130, 0, 0);                   // end of stream
    EXPECT_EQ(expected.bytes, file());

    kord::CVMDKSparseExtentHeader footer = headerOnDisk(129);
    EXPECT_EQ(44, footer.gdOffset);
    EXPECT_EQ(0x30003u, footer.flags);
}

TEST_P(EmptyLayoutTest, embeddedDescriptorAndKeyHash)
{
    kord::CVMDKDescriptor descriptor;
    descriptor.setVersion(1);
    descriptor.setContentID(0x1234abcd);
    descriptor.setCreateType("monolithicSparse");
    descriptor.setAdapterType("caf\xC3\xA9");
    zu::TBuffer<unsigned char> keyHash;
    for (int i = 0; i < 32; ++i) keyHash.append(reinterpret_cast<const unsigned char*>("\x5A"), 1);
    keyHash[31] = 0x01;
    create(false, 1, 8, &descriptor, 20, keyHash);

    const Bytes bytes = file();
    ASSERT_EQ(32u * 512, bytes.size());
    // Extended header: its own magic, then encryption fields in the pad area.
    EXPECT_EQ(0x05644B45u, zu::loadLE32(&bytes[0]));
    EXPECT_EQ(1, zu::loadLE64(&bytes[28]));        // descriptorOffset
    EXPECT_EQ(20, zu::loadLE64(&bytes[36]));       // descriptorSize
    EXPECT_EQ(21, zu::loadLE64(&bytes[48]));       // rgdOffset right after the descriptor area
    EXPECT_EQ(26, zu::loadLE64(&bytes[56]));       // gdOffset: 21 + 1 + 4
    EXPECT_EQ(32, zu::loadLE64(&bytes[64]));       // overHead: 31 rounded up to 8-sector grains
    EXPECT_EQ(1, zu::loadLE16(&bytes[79]));        // encAlg
    EXPECT_EQ(1, zu::loadLE16(&bytes[81]));        // encKeyHashAlg
    EXPECT_EQ(32, zu::loadLE16(&bytes[83]));       // encKeyHashSize
    EXPECT_EQ(Bytes(keyHash.getData(), keyHash.getData() + 32), Bytes(bytes.begin() + 85, bytes.begin() + 117));
    EXPECT_EQ(Bytes(395, 0), Bytes(bytes.begin() + 117, bytes.begin() + 512));

    // The descriptor text (with the encoding line the store adds), then zeros.
    const std::string text = "version=1\nCID=1234abcd\ncreateType=\"monolithicSparse\"\nencoding=\"UTF-8\"\n"
                             "ddb.adapterType = \"caf\xC3\xA9\"\n";
    EXPECT_EQ(text, std::string(bytes.begin() + 512, bytes.begin() + 512 + static_cast<long>(text.size())));
    EXPECT_EQ(Bytes(20 * 512 - text.size(), 0),
              Bytes(bytes.begin() + 512 + static_cast<long>(text.size()), bytes.begin() + 21 * 512));
    EXPECT_EQ(22, zu::loadLE32(&bytes[21 * 512]));  // one table
    EXPECT_EQ(27, zu::loadLE32(&bytes[26 * 512]));
}

TEST_P(EmptyLayoutTest, tableAndDirectoryCountsRoundUp)
{
    // One grain: one table, one directory sector.
    create(false, 1, 8);
    ExpectedImage one(16);
    one.header(0, {false, 8, 8, 0, 0, 1, 6, 16});
    one.entries(1, 1, 2, 4);
    one.entries(6, 1, 7, 4);
    EXPECT_EQ(one.bytes, file());

    // 513 grains: two tables.
    fs->deleteFile(uri("x.vmdk"), false);
    create(false, 513, 8);
    ExpectedImage two(24);
    two.header(0, {false, 513 * 8, 8, 0, 0, 1, 10, 24});
    two.entries(1, 2, 2, 4);
    two.entries(10, 2, 11, 4);
    EXPECT_EQ(two.bytes, file());

    // 129 tables: the directory needs a second sector, zero after its last entry.
    fs->deleteFile(uri("x.vmdk"), false);
    create(true, 129 * 512, 128);
    const Bytes bytes = file();
    kord::CVMDKSparseExtentHeader header = headerOnDisk();
    EXPECT_EQ(2, header.rgdOffset);
    const long long firstTable = 4;                 // directory at 2..3
    EXPECT_EQ(firstTable + 1, zu::loadLE32(&bytes[2 * 512]));
    EXPECT_EQ(firstTable + 1 + 5 * 128, zu::loadLE32(&bytes[2 * 512 + 4 * 128]));
    EXPECT_EQ(Bytes(512 - 4, 0), Bytes(bytes.begin() + 3 * 512 + 4, bytes.begin() + 4 * 512));
    EXPECT_EQ(firstTable + 129 * 5 + 1, header.gdOffset); // after the tables and a GD marker
    EXPECT_EQ(0, header.overHead % 128);
}

TEST_P(EmptyLayoutTest, existingFileIsNeverOverwrittenOrDeleted)
{
    const Bytes precious = kordtest::pattern(1000, 7);
    kordtest::writeAll(fs, uri("x.vmdk"), precious);
    LogCapture log;
    expectThrows<zu::CFileSystemError>([&] { create(false, 16, 8); });
    EXPECT_EQ(precious, file());
    EXPECT_TRUE(log.lines.empty());
}

TEST_P(EmptyLayoutTest, failurePartWayLeavesNoFile)
{
    kord::CVMDKDescriptor descriptor;
    descriptor.setCreateType(zu::String(std::string(600, 'x')));
    {
        LogCapture log;
        zu::CError e = expectThrows<zu::CError>([&] { create(false, 16, 8, &descriptor, 1); });
        EXPECT_EQ(0u, msg(e).find("Internal error: actual VMDK descriptor size exceeds target size (actual size: "));
        EXPECT_NE(std::string::npos, msg(e).find(", target size: 512"));
        EXPECT_FALSE(fs->exists(uri("x.vmdk")));
        ASSERT_EQ(1u, log.lines.size());
        const std::string expected = "Error in CVMDKDisk::createEmptySparseExtentFile ('" +
                                     uri("x.vmdk").toString(true).toUTF8() +
                                     "'). Deleting file and letting error through.";
        EXPECT_NE(std::string::npos, log.lines[0].find(expected)) << log.lines[0];
    }

    // Arguments that cannot make a file are refused before anything is
    // created, a zero buffer smaller than the descriptor area among them.
    kord::CVMDKDescriptor small;
    small.setVersion(1);
    zu::CError e = expectThrows<zu::CInvalidArgError>([&] { create(true, 16, 8, &small, 20, noKeyHash, 512); });
    EXPECT_NE(std::string::npos, msg(e).find("zero buffer must be at least as large as the descriptor area"));
    expectThrows<zu::CInvalidArgError>([&] { create(false, 0, 8); });
    expectThrows<zu::CInvalidArgError>([&] { create(false, 16, 0); });
    expectThrows<zu::CInvalidArgError>([&] { create(false, -1, 8); });
    expectThrows<zu::CInvalidArgError>([&] { create(false, 1LL << 40, 128); });
    EXPECT_FALSE(fs->exists(uri("x.vmdk")));
}

KORD_INSTANTIATE_FS(EmptyLayoutTest);

namespace {

Bytes sectorWithMarker(std::uint32_t type, long long value)
{
    Bytes s(512, 0);
    zu::storeLE64(&s[0], static_cast<std::uint64_t>(value));
    zu::storeLE32(&s[12], type);
    return s;
}

} // namespace

TEST(VMDKMarkerTest, markerRecognisedOnlyWithZeroSizeAndZeroTail)
{
    long long value = 99;
    Bytes s = sectorWithMarker(kord::vmdkMarkerGrainTable, 4);
    EXPECT_TRUE(kord::isVMDKMarker(s.data(), kord::vmdkMarkerGrainTable, &value));
    EXPECT_EQ(4, value);
    EXPECT_TRUE(kord::isVMDKMarker(s.data(), kord::vmdkMarkerGrainTable, nullptr));
    EXPECT_FALSE(kord::isVMDKMarker(s.data(), kord::vmdkMarkerGrainDirectory, &value));
    EXPECT_EQ(0, value);

    Bytes tail = s;
    tail[300] = 1;
    value = 99;
    EXPECT_FALSE(kord::isVMDKMarker(tail.data(), kord::vmdkMarkerGrainTable, &value));
    EXPECT_EQ(0, value);
    Bytes grain = s;
    grain[8] = 0x20;   // a compressed grain has its data size here
    EXPECT_FALSE(kord::isVMDKMarker(grain.data(), kord::vmdkMarkerGrainTable, nullptr));
    Bytes last = s;
    last[511] = 0xFF;
    EXPECT_FALSE(kord::isVMDKMarker(last.data(), kord::vmdkMarkerGrainTable, nullptr));

    // Written markers read back, including a negative value and our own types.
    zu::P<zu::TBuffer<unsigned char>> data = zu::newObj<zu::TBuffer<unsigned char>>();
    zu::CDataOutStream out(zu::newObj<zu::CBufferStream>(data));
    kord::writeVMDKMarker(out, kord::vmdkMarkerSlotSizeDirectory, -2, zeroBuffer(512));
    EXPECT_EQ(sectorWithMarker(0x18349002, -2), Bytes(data->getData(), data->getData() + data->getUsed()));
    EXPECT_TRUE(kord::isVMDKMarker(data->getData(), kord::vmdkMarkerSlotSizeDirectory, &value));
    EXPECT_EQ(-2, value);
}

TEST(VMDKMarkerTest, paddingAndSectorPositions)
{
    zu::P<zu::TBuffer<unsigned char>> data = zu::newObj<zu::TBuffer<unsigned char>>();
    zu::P<zu::CBufferStream> stream =
        zu::newObj<zu::CBufferStream>(data, 2.0, zu::CURI(zu::String("file:///data/x.vmdk")));
    stream->write("ab", 2);
    kord::vmdkWritePadding(*stream, 0, zeroBuffer(512));
    kord::vmdkWritePadding(*stream, -5, zeroBuffer(512));
    EXPECT_EQ(2, stream->getLength());
    // More than the zero buffer holds is written in pieces.
    kord::vmdkWritePadding(*stream, 1534, zeroBuffer(512));
    EXPECT_EQ(1536, stream->getLength());
    EXPECT_EQ(Bytes(1534, 0), Bytes(data->getData() + 2, data->getData() + 1536));
    EXPECT_EQ(3, kord::getStreamPositionVMDKSectors(*stream));

    stream->seek(1000);
    zu::CError e = expectThrows<zu::CError>([&] { kord::getStreamPositionVMDKSectors(*stream); });
    EXPECT_EQ("Internal error in kord::getStreamPositionVMDKSectors. Stream position should be a multiple of 512 "
              "but it is not.",
              msg(e));
    EXPECT_EQ(-1, e.getCode());
    EXPECT_TRUE(e.getDomain().empty());
    EXPECT_EQ("file:///data/x.vmdk", e.getProp("uri").toUTF8());
    EXPECT_EQ("1000", e.getProp("position").toUTF8());
}
