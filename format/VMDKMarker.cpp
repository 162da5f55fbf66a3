#include "format/VMDKMarker.h"

#include "base/CError.h"
#include "base/Endian.h"

#include <algorithm>

namespace kord {

namespace {

constexpr int markerHeaderBytes = 16;

void checkZeroBuffer(const zu::TBuffer<unsigned char>& zeros, const char* where)
{
    if (zeros.getUsed() < vmdkSectorSize)
        throw zu::CInvalidArgError(where, "zero buffer must hold at least 512 bytes",
                                   zu::CProps().set("size", zeros.getUsed()));
}

} // namespace

void writeVMDKMarker(zu::CDataOutStream& out, VMDKMarkerID type, long long value, const zu::TBuffer<unsigned char>& zeros)
{
    checkZeroBuffer(zeros, "kord::writeVMDKMarker");
    unsigned char head[markerHeaderBytes];
    zu::storeLE64(head, static_cast<std::uint64_t>(value));
    zu::storeLE32(head + 8, 0);
    zu::storeLE32(head + 12, type);
    out.write(head, markerHeaderBytes);
    out.write(zeros.getData(), vmdkSectorSize - markerHeaderBytes);
}

bool isVMDKMarker(const unsigned char* sector, VMDKMarkerID type, long long* value)
{
    if (value) *value = 0;
    if (zu::loadLE32(sector + 8) != 0 || zu::loadLE32(sector + 12) != type) return false;
    for (int i = markerHeaderBytes; i < vmdkSectorSize; ++i)
        if (sector[i] != 0) return false;
    if (value) *value = static_cast<long long>(zu::loadLE64(sector));
    return true;
}

void vmdkWritePadding(zu::IOutStream& out, long long count, const zu::TBuffer<unsigned char>& zeros)
{
    long long chunk = zeros.getUsed();
    if (count > 0 && chunk <= 0)
        throw zu::CInvalidArgError("kord::vmdkWritePadding", "zero buffer is empty");
    while (count > 0) {
        int n = static_cast<int>(std::min(count, chunk));
        out.write(zeros.getData(), n);
        count -= n;
    }
}

void vmdkWritePadding(zu::IOutStream& out, int count, const zu::TBuffer<unsigned char>& zeros)
{
    vmdkWritePadding(out, static_cast<long long>(count), zeros);
}

long long getStreamPositionVMDKSectors(zu::IStreamBase& stream)
{
    long long position = stream.getPosition();
    if (position % vmdkSectorSize != 0)
        throw zu::CError("Internal error in kord::getStreamPositionVMDKSectors. Stream position should be a multiple "
                         "of 512 but it is not.",
                         zu::String(), -1,
                         zu::CProps().set("uri", stream.getURI().toString(true)).set("position", position));
    return position / vmdkSectorSize;
}

} // namespace kord
