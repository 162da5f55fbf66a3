#include "serve/CServedDisk.h"

#include <algorithm>

namespace kordserve {

CServedDisk::CServedDisk(kord::CVMDKDisk* disk) : disk(disk), grainSize(disk->getGrainSizeBytes()) {}

void CServedDisk::read(void* buffer, long long bytes, long long offset)
{
    disk->seek(offset);
    disk->read(buffer, static_cast<int>(bytes));
}

void CServedDisk::write(const void* buffer, long long bytes, long long offset)
{
    disk->seek(offset);
    disk->write(buffer, static_cast<int>(bytes));
}

bool CServedDisk::isGrainWritten(long long offset)
{
    disk->seek(offset);
    return disk->isGrainWritten();
}

bool CServedDisk::zero(long long bytes, long long offset, bool fastOnly)
{
    const long long end = offset + bytes;
    const long long first = offset / grainSize * grainSize;
    if (fastOnly) {
        for (long long grain = first; grain < end; grain += grainSize)
            if (isGrainWritten(grain)) return false;
        return true;
    }
    for (long long grain = first; grain < end; grain += grainSize) {
        if (!isGrainWritten(grain)) continue;
        if (zeros.getUsed() == 0) zeros.setUsedFill(grainSize, 0);
        const long long from = std::max(offset, grain);
        const long long to = std::min(end, grain + grainSize);
        write(zeros.getData(), to - from, from);
    }
    return true;
}

void CServedDisk::mapAllocation(long long bytes, long long offset, const RunReceiver& receive)
{
    const long long size = getSize();
    const long long end = std::min(offset + bytes, size);
    long long runStart = offset;
    bool runAllocated = isGrainWritten(offset);
    long long grain = offset / grainSize * grainSize + grainSize;
    for (; grain < end; grain += grainSize) {
        bool allocated = isGrainWritten(grain);
        if (allocated == runAllocated) continue;
        if (!receive(runStart, grain - runStart, runAllocated)) return;
        runStart = grain;
        runAllocated = allocated;
    }
    receive(runStart, std::min(grain, size) - runStart, runAllocated);
}

} // namespace kordserve
