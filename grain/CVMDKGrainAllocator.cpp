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
// A cut trail is recognised by at least its footer marker's fields (value,
// size and type); fewer bytes could be anything.
constexpr long long markerFieldBytes = 16;

long long roundUpToSector(long long bytes) { return (bytes + vmdkSectorSize - 1) / vmdkSectorSize * vmdkSectorSize; }

// Only at a sector boundary: new grains go where the trail begins, and
// grain table entries name whole sectors.
bool fileHasTrailAt(zu::IIOStream* stream, long long position, const zu::TBuffer<unsigned char>& trail)
{
    if (position < 0 || position % vmdkSectorSize != 0 || position + trail.getUsed() != stream->getLength())
        return false;
    zu::TBuffer<unsigned char> found(trail.getUsed());
    stream->seek(position);
    return stream->readLax(found.getData(), static_cast<int>(found.getUsed())) == found.getUsed() && found == trail;
}

} // namespace

CVMDKGrainAllocator::CVMDKGrainAllocator(zu::IIOStream* stream, int access, long long grainAreaStartBytes,
                                         long long trailPosBytes, CVMDKGrainDirectory* directory,
                                         const zu::TBuffer<unsigned char>& trail)
    : stream(stream), access(access), directory(directory), trail(trail),
      allocationPoint(std::max(grainAreaStartBytes, roundUpToSector(stream->getLength())))
{
    if (trail.isEmpty()) return;
    trailIntact = fileHasTrailAt(stream, trailPosBytes, trail);
    if (trailIntact) {
        allocationPoint = trailPosBytes;
        return;
    }
    bool writable = access == zu::IIOStream::accessReadWrite;
    long long cut = findCutTrail(grainAreaStartBytes);
    if (cut >= 0) {
        // Ours, cut short: it is written again in its place.
        allocationPoint = cut;
        trailCut = true;
        if (writable)
            zu::logWarning("VMDK trail data was cut short by an interrupted write; it is written again at the next "
                           "change (uri: '" + stream->getURI().toString(true) + "').");
    } else if (writable) {
        zu::logWarning("VMDK trail data is not what we expected. Assuming that it is not trail data - we won't "
                       "overwrite it.");
    }
    // Either way the file must end with a trail again after the next flush.
    trailNeedsWrite = writable;
}

long long CVMDKGrainAllocator::findCutTrail(long long grainAreaStartBytes) const
{
    long long fileSize = stream->getLength();
    long long trailBytes = trail.getUsed();
    long long from = std::max(grainAreaStartBytes, fileSize - trailBytes + 1);
    if (fileSize - from < markerFieldBytes) return -1;
    zu::TBuffer<unsigned char> end(fileSize - from);
    stream->seek(from);
    if (stream->readLax(end.getData(), static_cast<int>(end.getUsed())) != end.getUsed()) return -1;
    // The trail was written at a sector boundary.
    for (long long start = roundUpToSector(from); fileSize - start >= markerFieldBytes; start += vmdkSectorSize)
        if (std::memcmp(end.getData() + (start - from), trail.getData(), static_cast<size_t>(fileSize - start)) == 0)
            return start;
    return -1;
}

void CVMDKGrainAllocator::setReferencedEnd(long long endBytes)
{
    allocationPoint = std::max(allocationPoint, (endBytes + vmdkSectorSize - 1) / vmdkSectorSize * vmdkSectorSize);
    referencedEndKnown = true;
}

void CVMDKGrainAllocator::flushChangesToStream()
{
    if (!trailNeedsWrite || trail.isEmpty()) return;
    stream->seek(allocationPoint);
    stream->write(trail.getData(), static_cast<int>(trail.getUsed()));
    trailNeedsWrite = false;
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
    long long position = takeFreeSlot(slotSizeSectors);
    if (position >= 0) {
        // A freed slot holds an old version of some grain: no need to zero what the data leaves.
        writeAt(position, data, size, keep);
        reusedSinceCommit.insert(position / vmdkSectorSize);
    } else {
        position = appendSlot(data, size, keep, slotBytes);
    }
    directory->setGrainInfo(extentGrainIndex, position / vmdkSectorSize, slotSizeSectors);
    return position / vmdkSectorSize;
}

long long CVMDKGrainAllocator::takeFreeSlot(long long sectors)
{
    auto it = freeSlots.lower_bound(sectors);
    if (it == freeSlots.end()) return -1;
    long long posSectors = it->second;
    long long rest = it->first - sectors;
    freeSlots.erase(it);
    if (rest > 0) freeSlots.emplace(rest, posSectors + sectors);
    return posSectors * vmdkSectorSize;
}

long long CVMDKGrainAllocator::appendSlot(const void* data, int size, const zu::TConstBufferSlice<unsigned char>* keep,
                                          long long slotBytes)
{
    // Grain table entries hold 32-bit sector numbers: a grain beyond them
    // could not be recorded.
    if (allocationPoint + slotBytes > vmdkMaxAddressableSectors * vmdkSectorSize)
        throw zu::CIOError(zu::CIOError::codeWrite, "VMDK extent file is full",
                           zu::CProps()
                               .set("uri", stream->getURI().toString(true))
                               .set("posSectors", allocationPoint / vmdkSectorSize)
                               .set("slotSizeSectors", slotBytes / vmdkSectorSize)
                               .set("maxSectors", vmdkMaxAddressableSectors));
    long long fileEnd = stream->getLength();
    long long position = allocationPoint;
    writeAt(position, data, size, keep);
    trailNeedsWrite = true;
    long long staleBytes = std::min(slotBytes - size, std::max(0LL, fileEnd - (position + size)));
    if (staleBytes > 0) {
        if (zeros.isEmpty()) zeros.setUsedFill(zeroChunkBytes, 0);
        vmdkWritePadding(*stream, staleBytes, zeros);
    }
    if (!appendedSinceCommit) {
        appendedSinceCommit = true;
        uncommittedFrom = position;
    }
    allocationPoint = position + slotBytes;
    return position;
}

void CVMDKGrainAllocator::writeAt(long long position, const void* data, int size,
                                  const zu::TConstBufferSlice<unsigned char>* keep)
{
    stream->seek(position);
    if (keep)
        stream->writeKeepBuffer(*keep);
    else
        stream->write(data, size);
}

bool CVMDKGrainAllocator::isSlotUncommitted(long long posSectors) const
{
    long long position = posSectors * vmdkSectorSize;
    return (appendedSinceCommit && position >= uncommittedFrom && position < allocationPoint) ||
           reusedSinceCommit.count(posSectors) > 0;
}

void CVMDKGrainAllocator::releaseSlot(long long posSectors, long long slotSizeSectors)
{
    if (isSlotUncommitted(posSectors)) {
        reusedSinceCommit.erase(posSectors);
        freeSlots.emplace(slotSizeSectors, posSectors);
    } else {
        releasedSlots.push_back(CSlot{posSectors, slotSizeSectors});
    }
}

void CVMDKGrainAllocator::addFreeSpace(long long posSectors, long long sectors)
{
    freeSlots.emplace(sectors, posSectors);
}

void CVMDKGrainAllocator::beginCommit()
{
    committableSlots = releasedSlots.size();
    reusedSinceCommit.clear();
    appendedSinceCommit = false;
}

void CVMDKGrainAllocator::commit()
{
    auto committable = releasedSlots.begin() + static_cast<std::ptrdiff_t>(committableSlots);
    for (auto it = releasedSlots.begin(); it != committable; ++it) freeSlots.emplace(it->sectors, it->posSectors);
    releasedSlots.erase(releasedSlots.begin(), committable);
    committableSlots = 0;
    if (trail.isEmpty()) trimFreeEnd();
}

// Free slots at the end of the grain data (left by the last grains when
// they moved) are cut off the file, where no trail follows them: no table
// points at them any more. Free slots never overlap, so walking them by
// their ends from the last finds every slot of the free run at the end in
// one pass, however many there are.
void CVMDKGrainAllocator::trimFreeEnd()
{
    using Slot = decltype(freeSlots)::iterator;
    std::vector<std::pair<long long, Slot>> byEnd;
    byEnd.reserve(freeSlots.size());
    for (Slot it = freeSlots.begin(); it != freeSlots.end(); ++it) byEnd.emplace_back(it->second + it->first, it);
    std::sort(byEnd.begin(), byEnd.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    long long end = allocationPoint / vmdkSectorSize;
    for (; !byEnd.empty() && byEnd.back().first == end; byEnd.pop_back()) {
        end = byEnd.back().second->second;
        freeSlots.erase(byEnd.back().second);
    }
    if (end * vmdkSectorSize == allocationPoint) return;
    allocationPoint = end * vmdkSectorSize;
    stream->setLength(allocationPoint);
}

long long CVMDKGrainAllocator::getFreeSectors() const
{
    long long sectors = 0;
    for (const auto& slot : freeSlots) sectors += slot.first;
    return sectors;
}

} // namespace kord
