#include "grain/CVMDKGrainAllocator.h"

#include "base/CIOError.h"
#include "base/Log.h"
#include "format/VMDKEmptyLayout.h"
#include "format/VMDKMarker.h"

#include <algorithm>
#include <cstring>

namespace kord {

namespace {

constexpr long long zeroChunkBytes = 64 * 1024;

bool fileHasTrailAt(zu::IIOStream* stream, long long position, const zu::TBuffer<unsigned char>& trail)
{
    if (position < 0 || position + trail.getUsed() != stream->getLength()) return false;
    zu::TBuffer<unsigned char> found(trail.getUsed());
    stream->seek(position);
    return stream->readLax(found.getData(), static_cast<int>(found.getUsed())) == found.getUsed() && found == trail;
}

} // namespace

CVMDKGrainAllocator::CVMDKGrainAllocator(zu::IIOStream* stream, int access, long long dataEndBytes,
                                         long long trailPosBytes, CVMDKGrainDirectory* directory,
                                         const zu::TBuffer<unsigned char>& trail)
    : stream(stream), access(access), directory(directory), trail(trail), allocationPoint(dataEndBytes)
{
    if (!trail.isEmpty()) {
        trailIntact = fileHasTrailAt(stream, trailPosBytes, trail);
        if (trailIntact)
            allocationPoint = trailPosBytes;
        else if (access == zu::IIOStream::accessReadWrite)
            zu::logWarning("VMDK trail data is not what we expected. Assuming that it is not trail data - we won't "
                           "overwrite it.");
    }
}

CVMDKGrainAllocator::~CVMDKGrainAllocator()
{
    try {
        flushChangesToStream();
    } catch (const std::exception& e) {
        zu::onExceptionInDestructorIgnored("kord::CVMDKGrainAllocator", e);
    }
}

void CVMDKGrainAllocator::setReferencedEnd(long long endBytes)
{
    allocationPoint = std::max(allocationPoint, (endBytes + vmdkSectorSize - 1) / vmdkSectorSize * vmdkSectorSize);
    referencedEndKnown = true;
}

void CVMDKGrainAllocator::flushChangesToStream()
{
    if (!trailNeedsWrite || trail.isEmpty()) return;
    trailNeedsWrite = false;
    stream->seek(allocationPoint);
    stream->write(trail.getData(), static_cast<int>(trail.getUsed()));
}

long long CVMDKGrainAllocator::allocNewGrain(long long extentGrainIndex, const void* data, int size,
                                             int slotSizeSectors)
{
    return allocNewGrainImpl(extentGrainIndex, data, size, nullptr, slotSizeSectors);
}

long long CVMDKGrainAllocator::allocNewGrainKeepBuffer(long long extentGrainIndex,
                                                       const zu::TConstBufferSlice<unsigned char>& data,
                                                       int slotSizeSectors)
{
    return allocNewGrainImpl(extentGrainIndex, data.getData(), static_cast<int>(data.getLength()), &data,
                             slotSizeSectors);
}

long long CVMDKGrainAllocator::allocNewGrainImpl(long long extentGrainIndex, const void* data, int size,
                                                 const zu::TConstBufferSlice<unsigned char>* keep, int slotSizeSectors)
{
    long long slotBytes = static_cast<long long>(slotSizeSectors) * vmdkSectorSize;
    if (slotBytes < size)
        throw zu::CInvalidArgError("CVMDKGrainAllocator::allocNewGrain",
                                   "Slot size is smaller than grain data size (slot size: " + zu::toString(slotBytes) +
                                       " bytes, grain data size: " + zu::toString(size) + " bytes)");
    if (access != zu::IIOStream::accessReadWrite)
        throw zu::CError("Internal error: CVMDKGrainAllocator::allocNewGrain was called, but the grain allocator was "
                         "not opened for writing.");
    if (!referencedEndKnown)
        throw zu::CError("Internal error: CVMDKGrainAllocator::allocNewGrain was called before the end of the grain "
                         "data that the grain tables reference was known.");
    // Grain table entries hold 32-bit sector numbers: a grain beyond them
    // could not be recorded.
    if (allocationPoint + slotBytes > vmdkMaxAddressableSectors * vmdkSectorSize)
        throw zu::CIOError(zu::CIOError::codeWrite, "VMDK extent file is full",
                           zu::CProps()
                               .set("uri", stream->getURI().toString(true))
                               .set("posSectors", allocationPoint / vmdkSectorSize)
                               .set("slotSizeSectors", slotSizeSectors)
                               .set("maxSectors", vmdkMaxAddressableSectors));

    long long fileEnd = stream->getLength();
    long long position = allocationPoint;
    stream->seek(position);
    if (keep)
        stream->writeKeepBuffer(*keep);
    else
        stream->write(data, size);
    trailNeedsWrite = true;
    long long staleBytes = std::min(slotBytes - size, std::max(0LL, fileEnd - (position + size)));
    if (staleBytes > 0) {
        if (zeros.isEmpty()) zeros.setUsedFill(zeroChunkBytes, 0);
        vmdkWritePadding(*stream, staleBytes, zeros);
    }
    allocationPoint = position + slotBytes;
    directory->setGrainInfo(extentGrainIndex, position / vmdkSectorSize, slotSizeSectors);
    return position / vmdkSectorSize;
}

} // namespace kord
