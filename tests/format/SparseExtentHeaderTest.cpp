// The 512-byte sparse extent header: hand-built images load into the right
// fields and store back byte for byte; damaged headers fail with the right
// code and message.
#include "common/TestUtil.h"

#include "base/CBufferStream.h"
#include "base/CDataInStream.h"
#include "base/CDataOutStream.h"
#include "base/Endian.h"
#include "format/CVMDKSparseExtentHeader.h"

#include <algorithm>

using namespace kordtest;
using kord::CVMDKSparseExtentHeader;

namespace {

using Bytes = std::vector<unsigned char>;

// A standard header with a distinct value in every field, so that a field
// read from or written to the wrong offset shows.
Bytes standardImage(std::uint32_t flags)
{
    Bytes b(512, 0);
    zu::storeLE32(&b[0], 0x564D444B);        // magic "KDMV"
    zu::storeLE32(&b[4], 3);                 // version
    zu::storeLE32(&b[8], flags);             // flags
    zu::storeLE32(&b[44], 512);              // numGTEsPerGT
    // capacity, grainSize, descriptorOffset, descriptorSize, rgdOffset,
    // gdOffset, overHead (sign bit set)
    for (auto [at, value] : {std::pair<int, std::uint64_t>{12, 0x0102030405060708}, {20, 128}, {28, 1}, {36, 20},
                             {48, 21}, {56, 0x1122334455}, {64, 0x8000000000000001ull}})
        zu::storeLE64(&b[at], value);
    b[72] = 1;                               // uncleanShutdown
    std::copy_n("\n \r\n", 4, &b[73]);       // line-end check
    zu::storeLE16(&b[77], 0xBEEF);           // compressAlgorithm
    for (int i = 79; i < 512; ++i) b[i] = static_cast<unsigned char>(i * 7); // pad kept as read
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

Bytes store(const CVMDKSparseExtentHeader& header)
{
    zu::P<zu::TBuffer<unsigned char>> data = zu::newObj<zu::TBuffer<unsigned char>>();
    zu::CDataOutStream out(zu::newObj<zu::CBufferStream>(data));
    header.store(out);
    return Bytes(data->getData(), data->getData() + data->getUsed());
}

Bytes roundTrip(CVMDKSparseExtentHeader& header, const Bytes& image)
{
    load(header, image);
    return store(header);
}

zu::CIOError loadFails(const Bytes& image)
{
    CVMDKSparseExtentHeader header;
    return expectThrows<zu::CIOError>([&] { load(header, image); });
}

} // namespace

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
