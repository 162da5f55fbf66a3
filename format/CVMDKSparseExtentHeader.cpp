#include "format/CVMDKSparseExtentHeader.h"

#include "base/CIOError.h"

#include <algorithm>
#include <climits>
#include <cstring>

namespace kord {

// On-disk layout, 512 bytes, little-endian:
//
//  off  size  field              meaning
//    0     4  magic              "KDMV" (standard) or 45 4B 64 05 (extended)
//    4     4  version            1..3
//    8     4  flags              flag* bits
//   12     8  capacity           extent size in sectors
//   20     8  grainSize          grain size in sectors
//   28     8  descriptorOffset   sector of the embedded descriptor, 0 if none
//   36     8  descriptorSize     sectors reserved for it
//   44     4  numGTEsPerGT       entries per grain table
//   48     8  rgdOffset          redundant grain directory (sector)
//   56     8  gdOffset           grain directory (sector)
//   64     8  overHead           sectors before the first grain
//   72     1  uncleanShutdown    1 while open for writing and changed
//   73     4  line-end check     "\n \r\n" (mangled by text-mode transfers)
//   77     2  compressAlgorithm  0 none, 1 deflate
//   79   433  pad                standard header
// extended header, in place of the pad:
//   79     2  encAlg             0 none, 1 AES-256-CBC
//   81     2  encKeyHashAlg      1 SHA-256
//   83     2  encKeyHashSize     n, at most 427
//   85     n  encKeyHash         digest of the data key
// 85+n 427-n  pad

namespace {

const unsigned char lineEndCheck[4] = {'\n', ' ', '\r', '\n'};

}

CVMDKSparseExtentHeader::CVMDKSparseExtentHeader()
{
    padding.setUsedFill(standardPadBytes, 0);
}

void CVMDKSparseExtentHeader::load(zu::CDataInStream& in)
{
    std::uint32_t magic = in.readUInt32();
    if (magic == magicExtended) {
        extended = true;
    } else if (magic == magicStandard) {
        extended = false;
    } else {
        throw zu::CIOError(zu::CIOError::codeInvalidData, "Invalid magic number in VMDK sparse header",
                           zu::CProps().set("num", magic));
    }
    version = in.readUInt32();
    flags = in.readUInt32();
    capacity = in.readInt64();
    grainSize = in.readInt64();
    descriptorOffset = in.readInt64();
    descriptorSize = in.readInt64();
    numGTEsPerGT = in.readUInt32();
    rgdOffset = in.readInt64();
    if ((flags & flagRedundantGrainTables) == 0) rgdOffset = 0;
    gdOffset = in.readInt64();
    overHead = in.readInt64();
    uncleanShutdown = in.readUInt8();

    unsigned char check[4];
    in.read(check, 4);
    if ((flags & flagValidNewLineTest) != 0 && std::memcmp(check, lineEndCheck, 4) != 0)
        throw zu::CIOError(zu::CIOError::codeInvalidData,
                           "VMDK image is corrupted (probably by having been transferred in FTP ASCII mode).");
    compressAlgorithm = in.readUInt16();

    int padBytes = standardPadBytes;
    if (extended) {
        encAlg = in.readUInt16();
        encKeyHashAlg = in.readUInt16();
        int hashBytes = in.readUInt16();
        if (hashBytes > extendedRoomBytes)
            throw zu::CIOError(zu::CIOError::codeInvalidData, "VMDK extended header has an invalid key hash size.",
                               zu::CProps().set("keyHashSize", hashBytes).set("maxKeyHashSize", extendedRoomBytes));
        encKeyHash.setUsed(hashBytes);
        if (hashBytes > 0) in.read(encKeyHash.getData(), hashBytes);
        padBytes = extendedRoomBytes - hashBytes;
    }
    padding.ensureAllocated(standardPadBytes);
    padding.setUsed(padBytes);
    if (padBytes > 0) in.read(padding.getData(), padBytes);
}

void CVMDKSparseExtentHeader::store(zu::CDataOutStream& out) const
{
    // Checked before the first byte: a refused store must not leave half a
    // header on disk.
    int hashBytes = extended ? static_cast<int>(std::min<long long>(encKeyHash.getUsed(), INT_MAX)) : 0;
    if (hashBytes > extendedRoomBytes)
        throw zu::CInvalidArgError("CVMDKSparseExtentHeader::store", "Key hash is too long for the header",
                                   zu::CProps().set("keyHashSize", hashBytes));
    out.writeUInt32(extended ? magicExtended : magicStandard);
    out.writeUInt32(version);
    out.writeUInt32(flags);
    out.writeInt64(capacity);
    out.writeInt64(grainSize);
    out.writeInt64(descriptorOffset);
    out.writeInt64(descriptorSize);
    out.writeUInt32(numGTEsPerGT);
    out.writeInt64(rgdOffset);
    out.writeInt64(gdOffset);
    out.writeInt64(overHead);
    out.writeUInt8(uncleanShutdown);
    out.write(lineEndCheck, 4);
    out.writeUInt16(compressAlgorithm);

    int padBytes = standardPadBytes;
    if (extended) {
        out.writeUInt16(encAlg);
        out.writeUInt16(encKeyHashAlg);
        out.writeUInt16(static_cast<std::uint16_t>(hashBytes));
        if (hashBytes > 0) out.write(encKeyHash.getData(), hashBytes);
        padBytes = extendedRoomBytes - hashBytes;
    }
    // Pad bytes come from what was loaded; missing ones are zeros.
    static const unsigned char zeros[standardPadBytes] = {};
    int fromPadding = static_cast<int>(std::min<long long>(padding.getUsed(), padBytes));
    if (fromPadding > 0) out.write(padding.getData(), fromPadding);
    if (padBytes > fromPadding) out.write(zeros, padBytes - fromPadding);
}

} // namespace kord
