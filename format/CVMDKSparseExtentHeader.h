// The 512-byte header sector that begins every sparse extent file (and, in a
// stream-optimized file, also stands as its footer).
//
// Two variants share the first 79 bytes: the standard header with the magic
// "KDMV", and our extended header with its own magic, which carries the
// parameters of an encrypted extent where the standard header has padding.
// Fields are public: the extent code reads and sets them directly. load()
// only decodes (and checks the magic and line-end bytes); the meaning of the
// values is checked by whoever opens the extent.
#pragma once

#include "base/CBase.h"
#include "base/CDataInStream.h"
#include "base/CDataOutStream.h"
#include "base/TBuffer.h"

#include <cstdint>

namespace kord {

class CVMDKSparseExtentHeader : public zu::CBase {
public:
    static constexpr int sizeBytes = 512;
    // "KDMV" read as a little-endian 32-bit number.
    static constexpr std::uint32_t magicStandard = 0x564D444Bu;
    // Our extended (encryption-capable) variant: bytes 45 4B 64 05.
    static constexpr std::uint32_t magicExtended = 0x05644B45u;

    // Flag bits stored on disk; never renumber.
    static constexpr std::uint32_t flagValidNewLineTest = 0x1;      // bytes 73..76 are checked
    static constexpr std::uint32_t flagRedundantGrainTables = 0x2;  // rgdOffset is meaningful
    static constexpr std::uint32_t flagZeroedGrainEntries = 0x4;    // a grain table entry of 1 means "all zeros"
    static constexpr std::uint32_t flagCompressedGrains = 0x10000;  // grains are deflate streams
    static constexpr std::uint32_t flagMetadataMarkers = 0x20000;   // metadata framed by markers

    // gdOffset of stream-optimized files whose grain directory follows the
    // grains: the footer at the end of the file holds the real position.
    static constexpr long long gdOffsetInFooter = -1;

    static constexpr std::uint16_t compressionNone = 0;
    static constexpr std::uint16_t compressionDeflate = 1;
    static constexpr std::uint16_t encryptionNone = 0;
    static constexpr std::uint16_t encryptionAES256CBC = 1;
    static constexpr std::uint16_t keyHashSHA256 = 1;

    // Size of the pad area of the standard header, and of the room that the
    // extended header shares between the key hash and its pad.
    static constexpr int standardPadBytes = 433;
    static constexpr int extendedRoomBytes = 427;

    CVMDKSparseExtentHeader();

    // Reads the 512 bytes at the stream's position. Throws zu::CIOError code 5
    // for a bad magic (property "num"), a failed line-end check, or an
    // extended key hash longer than the header has room for.
    void load(zu::CDataInStream& in);
    // Writes exactly 512 bytes at the stream's position (no seek).
    void store(zu::CDataOutStream& out) const;

    std::uint32_t version = 0;
    std::uint32_t flags = 0;
    long long capacity = 0;
    long long grainSize = 0;
    long long descriptorOffset = 0;
    long long descriptorSize = 0;
    std::uint32_t numGTEsPerGT = 0;
    long long rgdOffset = 0;
    long long gdOffset = 0;
    long long overHead = 0;
    std::uint8_t uncleanShutdown = 0;
    std::uint16_t compressAlgorithm = 0;
    // Pad bytes as read, written back unchanged.
    zu::TBuffer<unsigned char> padding;
    bool extended = false;
    std::uint16_t encAlg = 0;
    std::uint16_t encKeyHashAlg = 0;
    zu::TBuffer<unsigned char> encKeyHash;
};

} // namespace kord
