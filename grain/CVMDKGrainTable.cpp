#include "grain/CVMDKGrainTable.h"

#include "base/CError.h"
#include "format/VMDKMarker.h"

namespace kord {

namespace {

static_assert(sizeof(unsigned int) == 4 && sizeof(unsigned short) == 2, "table entries are 32 and 16 bits");
// Entries are kept as read: the host is little-endian like the format.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "grain tables are used in on-disk byte order");

} // namespace

CVMDKGrainTable::CVMDKGrainTable(zu::IIOStream* stream, int access, long long grainSizeSectors, long long posSectors,
                                 long long redundantPosSectors, long long slotSizeTablePosSectors, int entryCount,
                                 bool zeroedGrainEntries)
    : stream(stream), access(access), grainSizeSectors(grainSizeSectors), posSectors(posSectors),
      redundantPosSectors(redundantPosSectors), slotSizeTablePosSectors(slotSizeTablePosSectors),
      entryCount(entryCount), zeroedGrainEntries(zeroedGrainEntries)
{
    load();
    if (redundantPosSectors > 0 && access == zu::IIOStream::accessReadWrite) {
        zu::TBuffer<unsigned int> copy(entryCount);
        stream->seek(redundantPosSectors * vmdkSectorSize);
        stream->read(copy.getData(), entryCount * 4);
        redundantStale = copy != entries;
    }
}

void CVMDKGrainTable::load()
{
    // A table the file leaves out holds no grains.
    if (posSectors == 0) {
        entries.setUsedFill(entryCount, 0);
        slotSizes.setUsed(0);
        return;
    }
    entries.setUsed(entryCount);
    stream->seek(posSectors * vmdkSectorSize);
    stream->read(entries.getData(), entryCount * 4);
    slotSizes.setUsed(slotSizeTablePosSectors > 0 ? entryCount : 0);
    if (slotSizeTablePosSectors > 0) {
        stream->seek(slotSizeTablePosSectors * vmdkSectorSize);
        stream->read(slotSizes.getData(), entryCount * 2);
    }
}

void CVMDKGrainTable::reload(long long newPosSectors, long long newSlotSizeTablePosSectors)
{
    if (access == zu::IIOStream::accessReadWrite)
        throw zu::CError("Internal error: CVMDKGrainTable::reload was called on a table opened for writing.");
    posSectors = newPosSectors;
    slotSizeTablePosSectors = newSlotSizeTablePosSectors;
    load();
}

zu::CProps CVMDKGrainTable::uriProps() const { return zu::CProps().set("uri", stream->getURI().toString(true)); }

void CVMDKGrainTable::getGrainInfo(long long index, long long& pos, long long& slot) const
{
    if (index < 0 || index >= entryCount)
        throw zu::CInvalidArgError("CVMDKGrainTable::getGrainInfo", "Invalid grain index: " + zu::toString(index),
                                   uriProps());
    pos = entries[index];
    if (zeroedGrainEntries && pos == zeroedGrainEntry) pos = zeroedGrainPosSectors;
    if (pos <= 0)
        slot = 0;
    else
        slot = hasSlotSizes() ? static_cast<long long>(slotSizes[index]) : grainSizeSectors;
}

void CVMDKGrainTable::setGrainInfo(long long index, long long pos, long long slot)
{
    const char* where = "CVMDKGrainTable::setGrainInfo";
    if (index < 0 || index >= entryCount)
        throw zu::CInvalidArgError(where, "Invalid grain index: " + zu::toString(index), uriProps());
    if (!hasSlotSizes() && slot != grainSizeSectors)
        throw zu::CInvalidArgError(where,
                                   "Invalid grain slot size - it must equal the grain size (slot size: " +
                                       zu::toString(slot) + ", grain size: " + zu::toString(grainSizeSectors) + ")",
                                   uriProps());
    if (slot <= 0)
        throw zu::CInvalidArgError(where, "Invalid grain slot size.",
                                   uriProps()
                                       .set("posSectors", pos)
                                       .set("grainSizeSectors", grainSizeSectors)
                                       .set("slotSizeSectors", slot));
    if (access != zu::IIOStream::accessReadWrite)
        throw zu::CError("Internal error: CVMDKGrainTable::setGrainInfo was called, but the table was not opened for "
                         "writing.");
    // A table the file leaves out has no place to be written to.
    if (posSectors == 0)
        throw zu::CError("Internal error: CVMDKGrainTable::setGrainInfo was called on a grain table that the file "
                         "does not hold.", zu::String(), -1, uriProps());
    if (static_cast<long long>(entries[index]) != pos) {
        entries[index] = static_cast<unsigned int>(pos);
        entriesDirty = true;
    }
    if (hasSlotSizes() && static_cast<long long>(slotSizes[index]) != slot) {
        slotSizes[index] = static_cast<unsigned short>(slot);
        slotSizesDirty = true;
    }
}

bool CVMDKGrainTable::flushSlotSizesToStream()
{
    if (!slotSizesDirty) return false;
    stream->seek(slotSizeTablePosSectors * vmdkSectorSize);
    stream->write(slotSizes.getData(), entryCount * 2);
    slotSizesDirty = false;
    return true;
}

bool CVMDKGrainTable::flushEntriesToStream()
{
    if (!entriesDirty && !redundantStale) return false;
    if (entriesDirty) {
        stream->seek(posSectors * vmdkSectorSize);
        stream->write(entries.getData(), entryCount * 4);
    }
    if (redundantPosSectors > 0) {
        stream->seek(redundantPosSectors * vmdkSectorSize);
        stream->write(entries.getData(), entryCount * 4);
    }
    entriesDirty = false;
    redundantStale = false;
    return true;
}

} // namespace kord
