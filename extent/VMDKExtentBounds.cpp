#include "extent/VMDKExtentBounds.h"

#include "base/CIOError.h"

namespace kord {

namespace {

zu::CProps uriProps(const IVMDKExtentFile& extent) { return zu::CProps().set("uri", extent.getURI().toString(true)); }

} // namespace

void throwExtentSeekRefused(const IVMDKExtentFile& extent, const char* method, long long position, long long sizeBytes)
{
    throw zu::CInvalidArgError(method, "Invalid position: " + zu::toString(position),
                               uriProps(extent).set("extentSize", sizeBytes));
}

void throwExtentTransferRefused(const IVMDKExtentFile& extent, const char* kind, long long position, int bytes)
{
    if (!kind)
        throw zu::CIOError(zu::CIOError::codeWrite, "Write exceeded VMDK extent size.",
                           uriProps(extent).set("bytesToWrite", bytes).set("position", position));
    throw zu::CIOError(zu::CIOError::codeEndOfData,
                       "Unexpected end of data reading from VMDK " + zu::String(kind) + " extent file.",
                       uriProps(extent).set("bytesToRead", bytes).set("position", position));
}

void throwExtentWholeGrainRefused(const IVMDKExtentFile& extent, bool write, long long position, long long sizeBytes,
                                  long long grainBytes)
{
    const zu::String kind(write ? "write" : "read");
    zu::CProps props = uriProps(extent).set("extentSize", sizeBytes).set("grainSize", grainBytes).set("position", position);
    if (position % grainBytes != 0)
        throw zu::CIOError(zu::CIOError::codeMisalignedPosition,
                           "Prepared grain " + kind + " in VMDK extent file can only be done on a grain boundary.", props);
    throw zu::CIOError(write ? zu::CIOError::codeWrite : zu::CIOError::codeEndOfData,
                       "Prepared grain " + kind + " exceeds VMDK extent size.", props);
}

} // namespace kord
