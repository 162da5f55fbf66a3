// The checks every extent file makes on its byte position before it moves
// or transfers bytes: one message and code for each whatever the kind of
// extent, so that the disk above sees one behaviour. Positions and sizes
// are the extent's, in bytes; the extent is asked for its URI only to
// report a failure, so a passing check costs a comparison or two.
#pragma once

#include "extent/IVMDKExtentFile.h"

namespace kord {

[[noreturn]] void throwExtentSeekRefused(const IVMDKExtentFile& extent, const char* method, long long position,
                                         long long sizeBytes);
[[noreturn]] void throwExtentTransferRefused(const IVMDKExtentFile& extent, const char* kind, long long position,
                                             int bytes);
[[noreturn]] void throwExtentWholeGrainRefused(const IVMDKExtentFile& extent, bool write, long long position,
                                               long long sizeBytes, long long grainBytes);

// Throws zu::CInvalidArgError, naming `method`, outside 0 .. sizeBytes.
inline void checkExtentSeek(const IVMDKExtentFile& extent, const char* method, long long position, long long sizeBytes)
{
    if (position < 0 || position > sizeBytes) throwExtentSeekRefused(extent, method, position, sizeBytes);
}

// Throws zu::CIOError where `bytes` from the position pass the extent's end:
// for a read (kind: "sparse", "flat", ...) code endOfData, for a write
// (kind null) code write.
inline void checkExtentTransfer(const IVMDKExtentFile& extent, const char* kind, long long position, int bytes,
                                long long sizeBytes)
{
    if (bytes < 0 || position + bytes > sizeBytes) throwExtentTransferRefused(extent, kind, position, bytes);
}

// A whole grain from the position: it must start on a grain boundary
// (zu::CIOError code misalignedPosition) and end within the extent (code
// write or endOfData).
inline void checkExtentWholeGrain(const IVMDKExtentFile& extent, bool write, long long position, long long sizeBytes,
                                  long long grainBytes)
{
    if (position % grainBytes != 0 || position + grainBytes > sizeBytes)
        throwExtentWholeGrainRefused(extent, write, position, sizeBytes, grainBytes);
}

} // namespace kord
