#include "ChainMap.h"

#include "info/DiskInfo.h"

#include <algorithm>

namespace kordtool {

bool CChainMap::CEntry::continues(const CEntry& previous) const
{
    return depth == previous.depth && present == previous.present && zero == previous.zero &&
           data == previous.data && missing == previous.missing && file == previous.file &&
           (offset < 0 ? previous.offset < 0 : previous.offset >= 0 && previous.offset + previous.length == offset);
}

CChainMap::CChainMap(kord::CVMDKDisk* top) : top(top)
{
    for (kord::CVMDKDisk* disk = top; disk; disk = kordinfo::openParentIfPresent(disk)) {
        disks.push_back(disk);
        if (kordinfo::isParentMissing(disk)) missingParent = disk->getParentURI();
    }
}

CChainMap::CEntry CChainMap::entryAt(long long position) const
{
    CEntry entry;
    entry.start = position;
    entry.length = top->getDiskSizeBytes() - position;
    for (size_t depth = 0; depth < disks.size(); ++depth) {
        kord::CVMDKDisk* disk = disks[depth];
        entry.depth = static_cast<int>(depth);
        // Past the end of a smaller parent: zeros.
        if (position >= disk->getDiskSizeBytes()) return entry;
        disk->seek(position);
        kord::CVMDKDataPlace place = disk->locate();
        entry.length = std::min(entry.length, place.bytes);
        if (place.kind == kord::CVMDKDataPlace::kindUnwritten) continue;
        entry.present = true;
        entry.data = place.kind == kord::CVMDKDataPlace::kindData;
        entry.zero = !entry.data;
        entry.file = place.file.isEmpty() ? disk->getMainURI() : place.file;
        entry.offset = place.offsetBytes;
        return entry;
    }
    if (!missingParent.isEmpty()) {
        entry.depth = static_cast<int>(disks.size());
        entry.zero = false;
        entry.missing = true;
    }
    return entry;
}

} // namespace kordtool
