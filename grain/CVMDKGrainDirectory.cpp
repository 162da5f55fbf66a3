#include "grain/CVMDKGrainDirectory.h"

#include "base/CIOError.h"
#include "base/Log.h"
#include "format/VMDKEmptyLayout.h"
#include "format/VMDKMarker.h"

#include <algorithm>

namespace kord {

namespace {

long long sectorsFor(long long bytes) { return (bytes + vmdkSectorSize - 1) / vmdkSectorSize; }

// 2M grain tables: as many as an extent of 2^32 sectors (all that 32-bit
// sector numbers address) needs with grains of 4 sectors and up. A
// directory must also lie in the file, so a small hostile file cannot make
// us allocate much.
constexpr long long maxDirectoryBytes = 8LL * 1024 * 1024;

bool rangesOverlap(long long aStart, long long aLength, long long bStart, long long bLength)
{
    return aStart < bStart + bLength && bStart < aStart + aLength;
}

} // namespace

CVMDKGrainDirectory::CVMDKGrainDirectory(zu::IIOStream* stream, int access, long long posSectors,
                                         long long redundantPosSectors, long long capacitySectors,
                                         long long grainSizeSectors, int grainTableEntryCount, bool compressed,
                                         CVMDKGrainTableCache* cache, const CBounds& bounds, const COptions& options)
    : stream(stream), access(access), cache(cache), posSectors(posSectors), redundantPosSectors(redundantPosSectors),
      grainSizeSectors(grainSizeSectors), grainTableEntryCount(grainTableEntryCount), compressed(compressed),
      grainCount(calcExtentGrainCount(capacitySectors, grainSizeSectors)),
      grainTableCount(calcExtentGrainTableCount(capacitySectors, grainSizeSectors, grainTableEntryCount)),
      capacitySectors(capacitySectors), bounds(bounds), options(options)
{
    long long tableSectors = sectorsFor(static_cast<long long>(grainTableEntryCount) * 4);
    // Only a stream file of another tool may leave tables out; which one
    // this is shows once the slot-size directory is looked for.
    bool mayLeaveOut = options.acceptForeignStreams && compressed;
    readDirectory(posSectors, entries, "grain directory");
    long long leftOut = checkEntries(entries, tableSectors, "grain directory", mayLeaveOut);
    if (redundantPosSectors > 0) {
        readDirectory(redundantPosSectors, redundantEntries, "redundant grain directory");
        checkEntries(redundantEntries, tableSectors, "redundant grain directory", mayLeaveOut);
    }
    slotSizeDirectoryPosSectors = findSlotSizeDirectory();
    if (slotSizeDirectoryPosSectors > 0) {
        if (leftOut >= 0) throw invalidEntry("grain directory", leftOut, 0);
        stream->seek(slotSizeDirectoryPosSectors * vmdkSectorSize);
        slotSizeDirectory.setUsed(grainTableCount);
        if (grainTableCount > 0) stream->read(slotSizeDirectory.getData(), static_cast<int>(grainTableCount * 4));
    } else if (compressed) {
        if (!options.acceptForeignStreams)
            throw zu::CError("Slot size directory not found in compressed VMDK.", zu::String(), -1, uriProps());
        this->access = zu::IIOStream::accessRead;
    }
}

CVMDKGrainDirectory::~CVMDKGrainDirectory()
{
    // A table left under this address would be taken for a table of the
    // next directory made at the same address.
    try {
        cache->removeCachedTablesFromDirectory(this);
    } catch (const std::exception& e) {
        zu::onExceptionInDestructorIgnored("kord::CVMDKGrainDirectory", e);
    }
}

long long CVMDKGrainDirectory::calcExtentGrainCount(long long capacitySectors, long long grainSizeSectors)
{
    return (capacitySectors + grainSizeSectors - 1) / grainSizeSectors;
}

long long CVMDKGrainDirectory::calcExtentGrainTableCount(long long capacitySectors, long long grainSizeSectors,
                                                        int grainTableEntryCount)
{
    return (calcExtentGrainCount(capacitySectors, grainSizeSectors) + grainTableEntryCount - 1) / grainTableEntryCount;
}

zu::CProps CVMDKGrainDirectory::uriProps() const { return zu::CProps().set("uri", stream->getURI().toString(true)); }

bool CVMDKGrainDirectory::overlapsHeaderOrDescriptor(long long startSectors, long long sectors) const
{
    if (startSectors < 1) return true;
    return bounds.descriptorOffsetSectors > 0 &&
           rangesOverlap(startSectors, sectors, bounds.descriptorOffsetSectors, bounds.descriptorSizeSectors);
}

void CVMDKGrainDirectory::readDirectory(long long at, zu::TBuffer<unsigned int>& out, const char* what)
{
    // Checked before anything is allocated: the table count comes from the
    // header's capacity and the position from the header.
    long long bytes = grainTableCount * 4;
    if (bytes > maxDirectoryBytes)
        throw zu::CIOError(zu::CIOError::codeInvalidData, "VMDK " + zu::String(what) + " is too large.",
                           uriProps().set("tableCount", grainTableCount).set("maxTableCount", maxDirectoryBytes / 4));
    long long fileSectors = bounds.fileSizeBytes / vmdkSectorSize;
    long long sectors = std::max(1LL, sectorsFor(bytes));
    zu::CProps props = uriProps().set("posSectors", at).set("tableCount", grainTableCount);
    // Which of the two is wrong cannot be told; the message names both.
    if (at >= 1 && bounds.descriptorOffsetSectors > 0 &&
        rangesOverlap(at, sectors, bounds.descriptorOffsetSectors, bounds.descriptorSizeSectors))
        throw zu::CIOError(zu::CIOError::codeInvalidData, "VMDK " + zu::String(what) + " overlaps the descriptor area.",
                           props.set("descriptorOffset", bounds.descriptorOffsetSectors)
                               .set("descriptorSize", bounds.descriptorSizeSectors));
    if (overlapsHeaderOrDescriptor(at, sectors) || at > fileSectors || bytes > bounds.fileSizeBytes - at * vmdkSectorSize)
        throw zu::CIOError(zu::CIOError::codeInvalidData, "VMDK " + zu::String(what) + " position is invalid.",
                           props.set("fileSize", bounds.fileSizeBytes));
    metadataEndSectors = std::max(metadataEndSectors, at + sectorsFor(bytes));
    out.setUsed(grainTableCount);
    stream->seek(at * vmdkSectorSize);
    if (bytes > 0) stream->read(out.getData(), static_cast<int>(bytes));
}

zu::CIOError CVMDKGrainDirectory::invalidEntry(const char* what, long long tableIndex, long long at) const
{
    return zu::CIOError(zu::CIOError::codeInvalidData, "VMDK " + zu::String(what) + " entry is invalid.",
                        uriProps().set("tableIndex", tableIndex).set("posSectors", at).set("fileSize", bounds.fileSizeBytes));
}

long long CVMDKGrainDirectory::checkEntries(const zu::TBuffer<unsigned int>& table, long long tableSectors,
                                            const char* what, bool mayLeaveOut)
{
    long long fileSectors = bounds.fileSizeBytes / vmdkSectorSize;
    long long firstLeftOut = -1;
    for (long long i = 0; i < table.getUsed(); ++i) {
        long long at = table[i];
        if (at == 0 && mayLeaveOut) {
            if (firstLeftOut < 0) firstLeftOut = i;
            continue;
        }
        if (overlapsHeaderOrDescriptor(at, tableSectors) || at + tableSectors > fileSectors)
            throw invalidEntry(what, i, at);
        metadataEndSectors = std::max(metadataEndSectors, at + tableSectors);
    }
    return firstLeftOut;
}

long long CVMDKGrainDirectory::findSlotSizeDirectory()
{
    // The probe is the sector just behind the later copy of the last grain
    // table, computed in 32 bits as the format's sector numbers are.
    std::uint32_t probe;
    std::uint32_t tableSectors = static_cast<std::uint32_t>(sectorsFor(static_cast<long long>(grainTableEntryCount) * 4));
    if (grainTableCount < 1) {
        probe = std::max(static_cast<std::uint32_t>(posSectors), static_cast<std::uint32_t>(redundantPosSectors)) + 1;
    } else {
        std::uint32_t last = entries[grainTableCount - 1];
        if (redundantEntries.getUsed() > 0) last = std::max(last, redundantEntries[grainTableCount - 1]);
        probe = last + tableSectors;
    }
    unsigned char sector[vmdkSectorSize];
    stream->seek(static_cast<std::uint32_t>(probe * static_cast<std::uint32_t>(vmdkSectorSize)));
    if (stream->readLax(sector, vmdkSectorSize) < vmdkSectorSize) return 0;
    long long markerSectors = 0;
    if (!isVMDKMarker(sector, vmdkMarkerSlotSizeDirectory, &markerSectors)) return 0;

    long long expected = vmdkDirectorySectors(grainTableCount);
    zu::String uriText = stream->getURI().toString(true);
    if (markerSectors != expected) {
        zu::logWarning("Found VMDK marker for zuSlotDirectory, but the slot directory size does not match the expected "
                       "value (actual: " + zu::toString(markerSectors) + ", expected: " + zu::toString(expected) +
                       ", uri: '" + uriText + "'). Ignoring the slot directory.");
        return 0;
    }
    long long at = static_cast<long long>(probe) + 1;
    // Our layout puts the slot-size metadata before the grain data; one found
    // among grain data was not written by us and must not be trusted.
    bool placed = at + expected <= bounds.overHeadSectors;
    if (placed) {
        zu::TBuffer<unsigned int> slotTables(grainTableCount);
        stream->seek(at * vmdkSectorSize);
        if (grainTableCount > 0) stream->read(slotTables.getData(), static_cast<int>(grainTableCount * 4));
        for (long long i = 0; placed && i < grainTableCount; ++i) {
            long long table = slotTables[i];
            placed = !overlapsHeaderOrDescriptor(table, vmdkSlotSizeTableSectors) &&
                     table + vmdkSlotSizeTableSectors <= bounds.overHeadSectors;
            if (placed) metadataEndSectors = std::max(metadataEndSectors, table + vmdkSlotSizeTableSectors);
        }
    }
    if (placed) metadataEndSectors = std::max(metadataEndSectors, at + expected);
    if (!placed) {
        zu::logWarning("Found VMDK marker for zuSlotDirectory outside the metadata area (uri: '" + uriText +
                       "'). Ignoring the slot directory.");
        return 0;
    }
    return at;
}

zu::P<CVMDKGrainTable> CVMDKGrainDirectory::getGrainTable(long long tableIndex)
{
    if (tableIndex < 0 || tableIndex >= grainTableCount)
        throw zu::CInvalidArgError("CVMDKGrainDirectory::getGrainTable", "invalid table index: " + zu::toString(tableIndex),
                                   uriProps());
    if (zu::P<CVMDKGrainTable> hit = cache->getCachedTable(this, tableIndex)) return hit;

    long long first = tableIndex - tableIndex % tablesPerBatch;
    long long end = std::min(first + tablesPerBatch, grainTableCount);
    zu::P<CVMDKGrainTable> requested;
    for (long long i = first; i < end; ++i) {
        // A table of the batch that is still cached may hold changes not yet
        // written: loaded again from the file it would bring back stale entries.
        zu::P<CVMDKGrainTable> table = cache->getCachedTable(this, i);
        if (!table) {
            long long redundant = redundantEntries.getUsed() > 0 ? redundantEntries[i] : 0;
            long long slotTable = slotSizeDirectory.getUsed() > 0 ? slotSizeDirectory[i] : 0;
            table = zu::newObj<CVMDKGrainTable>(stream, access, grainSizeSectors, entries[i], redundant, slotTable,
                                                grainTableEntryCount, options.zeroedGrainEntries);
            if (table->hasUnflushedChanges()) staleRedundantTables.insert(i);
        }
        if (i == tableIndex)
            requested = table;
        else
            cache->setCachedTable(this, i, table);
    }
    if (!requested)
        throw zu::CError("Internal error: CVMDKGrainDirectory::getGrainTable updated the cache, but did not encounter "
                         "the requested table (requested index: " + zu::toString(tableIndex) + ")");
    // Last, so that the rest of the batch cannot push it out at once.
    cache->setCachedTable(this, tableIndex, requested);
    return requested;
}

void CVMDKGrainDirectory::forEachGrainTable(const std::function<void(long long, const CVMDKGrainTable&)>& visit)
{
    zu::P<CVMDKGrainTable> scratch;
    for (long long t = 0; t < grainTableCount; ++t) {
        if (zu::P<CVMDKGrainTable> cached = cache->getCachedTable(this, t)) {
            visit(t, *cached);
            continue;
        }
        long long slotTable = slotSizeDirectory.getUsed() > 0 ? slotSizeDirectory[t] : 0;
        if (scratch)
            scratch->reload(entries[t], slotTable);
        else
            scratch = zu::newObj<CVMDKGrainTable>(stream, zu::IIOStream::accessRead, grainSizeSectors, entries[t], 0,
                                                  slotTable, grainTableEntryCount, options.zeroedGrainEntries);
        visit(t, *scratch);
    }
}

void CVMDKGrainDirectory::getGrainInfo(long long grainIndex, long long& pos, long long& slot)
{
    getGrainTable(grainIndex / grainTableEntryCount)->getGrainInfo(grainIndex % grainTableEntryCount, pos, slot);
}

void CVMDKGrainDirectory::setGrainInfo(long long grainIndex, long long pos, long long slot)
{
    long long tableIndex = grainIndex / grainTableEntryCount;
    zu::P<CVMDKGrainTable> table = getGrainTable(tableIndex);
    table->setGrainInfo(grainIndex % grainTableEntryCount, pos, slot);
    // A changed table must be in the cache, where the flush finds it, even
    // if a small cache let it go since it was loaded.
    if (table->hasChanges()) cache->setCachedTable(this, tableIndex, table);
}

bool CVMDKGrainDirectory::flushChangesToStream(const std::function<void()>& barrier)
{
    bool written = cache->flushCachedTablesFromDirectoryToStream(this, barrier);
    // Stale copies of tables the cache has let go since: loaded again, they
    // find their copy stale again.
    for (auto it = staleRedundantTables.begin(); it != staleRedundantTables.end(); it = staleRedundantTables.erase(it))
        written = getGrainTable(*it)->flushEntriesToStream() || written;
    return written;
}

} // namespace kord
