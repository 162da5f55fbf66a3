#include "format/VMDKEmptyLayout.h"

#include "base/CError.h"
#include "base/Endian.h"
#include "base/Log.h"
#include "format/CVMDKLowLevelFileStream.h"
#include "format/CVMDKSparseExtentHeader.h"
#include "format/VMDKMarker.h"

#include <algorithm>
#include <climits>

namespace kord {

namespace {

// Writes `count` 32-bit directory entries first, first + step, ... in
// batches, keeping the low 32 bits of each.
void writeDirectoryEntries(zu::CDataOutStream& out, long long count, long long first, long long step)
{
    constexpr long long batchEntries = 16384;
    zu::TBuffer<unsigned char> batch(std::min(count, batchEntries) * 4);
    for (long long done = 0; done < count;) {
        long long n = std::min(count - done, batchEntries);
        for (long long i = 0; i < n; ++i)
            zu::storeLE32(batch.getData() + 4 * i, static_cast<std::uint32_t>(first + step * (done + i)));
        out.write(batch.getData(), static_cast<int>(n * 4));
        done += n;
    }
}

void padToSector(zu::CDataOutStream& out, const zu::TBuffer<unsigned char>& zeros)
{
    long long rest = out.getPosition() % vmdkSectorSize;
    if (rest != 0) vmdkWritePadding(out, static_cast<int>(vmdkSectorSize - rest), zeros);
}

void checkDirectoryEnd(zu::CDataOutStream& out, long long expectedSector)
{
    long long actual = getStreamPositionVMDKSectors(out);
    if (actual != expectedSector)
        throw zu::CError("Internal error. Stream position after writing VMDK grain directories is not the expected on "
                         "(expected: " + zu::toString(expectedSector) + " sectors, actual: " + zu::toString(actual) +
                         " sectors)");
}

void checkLayoutArguments(long long capacitySectors, long long grainSizeSectors, bool hasDescriptor,
                          long long descriptorSizeSectors, const zu::TBuffer<unsigned char>& zeros,
                          const zu::TBuffer<unsigned char>& keyHash)
{
    const char* where = "kord::createEmptyVMDKSparseExtentFile";
    if (grainSizeSectors < 1 || grainSizeSectors > vmdkMaxGrainSizeSectors)
        throw zu::CInvalidArgError(where, "invalid grain size", zu::CProps().set("grainSizeSectors", grainSizeSectors));
    if (capacitySectors < 1 || capacitySectors > vmdkMaxAddressableSectors / grainSizeSectors * grainSizeSectors)
        throw zu::CInvalidArgError(where, "invalid capacity", zu::CProps().set("capacitySectors", capacitySectors));
    if (descriptorSizeSectors < 0 || descriptorSizeSectors > INT_MAX / vmdkSectorSize)
        throw zu::CInvalidArgError(where, "invalid descriptor size",
                                   zu::CProps().set("descriptorSizeSectors", descriptorSizeSectors));
    if (zeros.getUsed() < vmdkSectorSize)
        throw zu::CInvalidArgError(where, "zero buffer must hold at least 512 bytes");
    if (hasDescriptor && zeros.getUsed() < descriptorSizeSectors * vmdkSectorSize)
        throw zu::CInvalidArgError(where, "zero buffer must be at least as large as the descriptor area",
                                   zu::CProps().set("size", zeros.getUsed()).set("descriptorSizeSectors", descriptorSizeSectors));
    if (keyHash.getUsed() > CVMDKSparseExtentHeader::extendedRoomBytes)
        throw zu::CInvalidArgError(where, "key hash is too long", zu::CProps().set("keyHashSize", keyHash.getUsed()));
}

void writeLayout(zu::CDataOutStream& out, bool streamOptimized, long long capacitySectors, long long grainSizeSectors,
                 const zu::TBuffer<unsigned char>& zeros, IVMDKDescriptorText* descriptor,
                 long long descriptorSizeSectors, const zu::TBuffer<unsigned char>& keyHash)
{
    CVMDKSparseExtentHeader header;
    header.capacity = capacitySectors;
    header.grainSize = grainSizeSectors;
    header.numGTEsPerGT = vmdkGrainTableEntries;
    if (streamOptimized) {
        header.version = 3;
        header.flags = CVMDKSparseExtentHeader::flagValidNewLineTest | CVMDKSparseExtentHeader::flagRedundantGrainTables |
                       CVMDKSparseExtentHeader::flagCompressedGrains | CVMDKSparseExtentHeader::flagMetadataMarkers;
        header.compressAlgorithm = CVMDKSparseExtentHeader::compressionDeflate;
    } else {
        header.version = 1;
        header.flags = CVMDKSparseExtentHeader::flagValidNewLineTest | CVMDKSparseExtentHeader::flagRedundantGrainTables;
        header.compressAlgorithm = CVMDKSparseExtentHeader::compressionNone;
    }
    if (!keyHash.isEmpty()) {
        header.extended = true;
        header.encAlg = CVMDKSparseExtentHeader::encryptionAES256CBC;
        header.encKeyHashAlg = CVMDKSparseExtentHeader::keyHashSHA256;
        header.encKeyHash = keyHash;
    }
    header.store(out);

    if (descriptor) {
        header.descriptorOffset = getStreamPositionVMDKSectors(out);
        header.descriptorSize = descriptorSizeSectors;
        descriptor->store(out, static_cast<int>(descriptorSizeSectors * vmdkSectorSize), zeros);
    }

    long long grainCount = (capacitySectors + grainSizeSectors - 1) / grainSizeSectors;
    long long tableCount = (grainCount + vmdkGrainTableEntries - 1) / vmdkGrainTableEntries;
    long long directorySectors = vmdkDirectorySectors(tableCount);
    if (streamOptimized) writeVMDKMarker(out, vmdkMarkerGrainDirectory, directorySectors, zeros);
    header.rgdOffset = getStreamPositionVMDKSectors(out);
    writeEmptyVMDKGrainDirectoryAndTables(out, tableCount, zeros, streamOptimized);
    if (streamOptimized) writeVMDKMarker(out, vmdkMarkerGrainDirectory, directorySectors, zeros);
    header.gdOffset = getStreamPositionVMDKSectors(out);
    writeEmptyVMDKGrainDirectoryAndTables(out, tableCount, zeros, streamOptimized);
    if (streamOptimized) writeEmptyVMDKSlotSizeDirectoryWithMarkerAndTablesWithMarkers(out, tableCount, zeros);

    long long grainBytes = grainSizeSectors * vmdkSectorSize;
    long long rest = out.getPosition() % grainBytes;
    if (rest != 0) vmdkWritePadding(out, grainBytes - rest, zeros);
    header.overHead = getStreamPositionVMDKSectors(out);
    if (header.overHead >= vmdkMaxAddressableSectors)
        throw zu::CInvalidArgError("kord::createEmptyVMDKSparseExtentFile",
                                   "the metadata of the extent does not fit in 32-bit sector numbers",
                                   zu::CProps().set("overHead", header.overHead));

    if (streamOptimized) {
        writeVMDKMarker(out, vmdkMarkerFooter, 1, zeros);
        header.store(out);
        writeVMDKMarker(out, vmdkMarkerEndOfStream, 0, zeros);
    }
    out.seek(0);
    header.store(out);
}

} // namespace

long long vmdkDirectorySectors(long long tableCount) { return (4 * tableCount + vmdkSectorSize - 1) / vmdkSectorSize; }

void writeEmptyVMDKGrainDirectoryAndTables(zu::CDataOutStream& out, long long tableCount,
                                           const zu::TBuffer<unsigned char>& zeros, bool withMarkers)
{
    long long firstTable = getStreamPositionVMDKSectors(out) + vmdkDirectorySectors(tableCount);
    if (withMarkers)
        writeDirectoryEntries(out, tableCount, firstTable + 1, vmdkGrainTableSectors + 1);
    else
        writeDirectoryEntries(out, tableCount, firstTable, vmdkGrainTableSectors);
    padToSector(out, zeros);
    checkDirectoryEnd(out, firstTable);
    for (long long i = 0; i < tableCount; ++i) {
        if (withMarkers) writeVMDKMarker(out, vmdkMarkerGrainTable, vmdkGrainTableSectors, zeros);
        vmdkWritePadding(out, vmdkGrainTableSectors * vmdkSectorSize, zeros);
    }
}

void writeEmptyVMDKSlotSizeDirectoryWithMarkerAndTablesWithMarkers(zu::CDataOutStream& out, long long tableCount,
                                                                   const zu::TBuffer<unsigned char>& zeros)
{
    long long directorySectors = vmdkDirectorySectors(tableCount);
    writeVMDKMarker(out, vmdkMarkerSlotSizeDirectory, directorySectors, zeros);
    long long firstTable = getStreamPositionVMDKSectors(out) + directorySectors;
    writeDirectoryEntries(out, tableCount, firstTable + 1, vmdkSlotSizeTableSectors + 1);
    padToSector(out, zeros);
    checkDirectoryEnd(out, firstTable);
    for (long long i = 0; i < tableCount; ++i) {
        writeVMDKMarker(out, vmdkMarkerSlotSizeTable, vmdkSlotSizeTableSectors, zeros);
        vmdkWritePadding(out, vmdkSlotSizeTableSectors * vmdkSectorSize, zeros);
    }
}

void createEmptyVMDKSparseExtentFile(zu::IFileSystem* fileSystem, const zu::CURI& uri, bool streamOptimized,
                                     long long capacitySectors, long long grainSizeSectors,
                                     const zu::TBuffer<unsigned char>& zeros, IVMDKDescriptorText* descriptor,
                                     long long descriptorSizeSectors, const zu::TBuffer<unsigned char>& keyHash)
{
    checkLayoutArguments(capacitySectors, grainSizeSectors, descriptor != nullptr, descriptorSizeSectors, zeros, keyHash);
    try {
        writeVMDKFileAtomically(fileSystem, uri, false, [&](zu::IIOStream& stream) {
            zu::CDataOutStream out(&stream);
            writeLayout(out, streamOptimized, capacitySectors, grainSizeSectors, zeros, descriptor,
                        descriptorSizeSectors, keyHash);
        });
    } catch (const std::exception& e) {
        // A file that exists already is left alone, and its refusal is not news.
        const auto* fileSystemError = dynamic_cast<const zu::CFileSystemError*>(&e);
        if (!fileSystemError || fileSystemError->getProblem() != zu::CFileSystemError::problemAlreadyExists)
            zu::logError(e, "Error in CVMDKDisk::createEmptySparseExtentFile ('" + uri.toString(true) +
                                "'). Deleting file and letting error through.");
        throw;
    }
}

} // namespace kord
