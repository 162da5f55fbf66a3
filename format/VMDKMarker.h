// Sector-level building blocks of sparse extent files: the 512-byte markers
// that frame the metadata of stream-optimized files (with two marker types of
// our own for the slot-size directory), zero padding, and positions in
// sectors.
#pragma once

#include "base/CDataOutStream.h"
#include "base/IIOStream.h"
#include "base/TBuffer.h"

#include <cstdint>

namespace kord {

constexpr int vmdkSectorSize = 512;

// Marker types as stored on disk; never renumber.
enum VMDKMarkerID : std::uint32_t {
    vmdkMarkerEndOfStream = 0,      // value 0
    vmdkMarkerGrainTable = 1,       // value: sectors of the table (4)
    vmdkMarkerGrainDirectory = 2,   // value: sectors of the directory
    vmdkMarkerFooter = 3,           // value: 1 (the footer sector follows)
    vmdkMarkerSlotSizeTable = 0x18349001,     // ours: value: sectors of the table (2)
    vmdkMarkerSlotSizeDirectory = 0x18349002, // ours (zuSlotDirectory): value: sectors of the directory
};

// A marker, one sector:
//   off  size  field
//     0     8  value   (signed)
//     8     4  size    always 0; a compressed grain has its data size here,
//                      which tells a grain from a marker
//    12     4  type    VMDKMarkerID
//    16   496  zero
// `zeros` must hold at least 512 zero bytes (as every zero buffer here).
void writeVMDKMarker(zu::CDataOutStream& out, VMDKMarkerID type, long long value, const zu::TBuffer<unsigned char>& zeros);

// True only when the sector is a marker of that type: size field 0, the
// type, and bytes 16..511 all zero. The value is stored through `value`
// (set to 0 first) when it is not null.
bool isVMDKMarker(const unsigned char* sector, VMDKMarkerID type, long long* value);

// Writes `count` zero bytes in chunks of at most the buffer's used size;
// count <= 0 writes nothing.
void vmdkWritePadding(zu::IOutStream& out, int count, const zu::TBuffer<unsigned char>& zeros);
void vmdkWritePadding(zu::IOutStream& out, long long count, const zu::TBuffer<unsigned char>& zeros);

// The stream position in sectors; throws an internal zu::CError when it is
// not a multiple of 512.
long long getStreamPositionVMDKSectors(zu::IStreamBase& stream);

} // namespace kord
