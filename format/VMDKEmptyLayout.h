// The metadata of a new sparse extent file: empty grain directories with
// their grain tables, the slot-size directory with its tables, and the whole
// layout of an empty extent file.
//
// Layout of a new file, in sectors (brackets: stream-optimized files only):
//   0                 header
//   1 ..              embedded descriptor area (when there is one)
//   [GD marker]       redundant grain directory, then its tables
//                     (each [GT marker] + 4 sectors)
//   [GD marker]       grain directory, then its tables
//   [slot-size directory marker, directory, tables each with a marker]
//   zero padding to a grain boundary = overHead
//   [footer marker, footer (a copy of the header), end-of-stream marker]
// The trailing footer group sits after overHead and is overwritten when
// grains are appended (and written again after them).
#pragma once

#include "base/CDataOutStream.h"
#include "base/IFileSystem.h"
#include "base/TBuffer.h"
#include "format/IVMDKDescriptorText.h"

namespace kord {

constexpr int vmdkGrainTableEntries = 512;      // entries per grain table in new files
constexpr int vmdkGrainTableSectors = 4;        // 512 entries of 32 bits
constexpr int vmdkSlotSizeTableSectors = 2;     // 512 entries of 16 bits
// The largest grain we create or open, in sectors (1 MiB).
constexpr long long vmdkMaxGrainSizeSectors = 2048;
// Sector numbers in grain directories and tables are 32 bits wide.
constexpr long long vmdkMaxAddressableSectors = 1LL << 32;

// Sectors of a directory with one 32-bit entry per table.
long long vmdkDirectorySectors(long long tableCount);

// Writes, at the current sector-aligned position, a grain directory of
// tableCount entries followed by tableCount empty grain tables (each after a
// marker when withMarkers).
void writeEmptyVMDKGrainDirectoryAndTables(zu::CDataOutStream& out, long long tableCount,
                                           const zu::TBuffer<unsigned char>& zeros, bool withMarkers);

// Writes the slot-size directory marker, the directory and its tables, each
// after its marker.
void writeEmptyVMDKSlotSizeDirectoryWithMarkerAndTablesWithMarkers(zu::CDataOutStream& out, long long tableCount,
                                                                   const zu::TBuffer<unsigned char>& zeros);

// Creates a new extent file (it must not exist) with its complete empty
// layout. The header's capacity is capacitySectors exactly, the extent
// line's size: a last grain that the capacity ends inside is partly used,
// and every reader sees the same virtual size. `descriptor` may be null (no
// embedded descriptor); an empty keyHash makes an unencrypted extent, a
// non-empty one an extended header carrying it. The file appears whole and
// durable or not at all (it is written under a temporary name and renamed
// into place); on failure the half-written file is deleted and the error
// passed on.
void createEmptyVMDKSparseExtentFile(zu::IFileSystem* fileSystem, const zu::CURI& uri, bool streamOptimized,
                                     long long capacitySectors, long long grainSizeSectors,
                                     const zu::TBuffer<unsigned char>& zeros, IVMDKDescriptorText* descriptor,
                                     long long descriptorSizeSectors, const zu::TBuffer<unsigned char>& keyHash);

} // namespace kord
