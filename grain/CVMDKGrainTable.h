// One grain table of a sparse extent file in memory: for each grain it
// covers, the sector where the grain's data starts (0: not stored) and, in
// extents with a slot-size directory, the sectors reserved for it.
//
// Entry encodings (little-endian, packed):
//   grain table      4 bytes per grain  sector of the grain's data, 0 = none;
//                                       1 = all zeros, in extents whose header
//                                       has the zeroed-grain flag
//   slot-size table  2 bytes per grain  sectors of the grain's slot
// Tables are made by the grain directory, which checked their positions,
// and live in the grain table cache. They are written only when their
// extent flushes, in its crash-safe order (slot-size tables before the grain
// tables that point at them, both after the grain data): a table never
// writes itself, not even when dropped, since a table written out of that
// order could point at grain data that never reached the disk.
//
// A table loaded for writing compares its redundant copy with the entries:
// a copy left behind by a write that failed or was cut short is written
// again with the next flush.
#pragma once

#include "base/IIOStream.h"
#include "base/TBuffer.h"

namespace kord {

class CVMDKGrainTable : public zu::CBase {
public:
    // The position getGrainInfo reports for a zeroed grain: like 0 it has
    // no storage, but it reads as zeros instead of from the parent disk.
    static constexpr long long zeroedGrainPosSectors = -1;
    // The stored entry of a zeroed grain.
    static constexpr unsigned zeroedGrainEntry = 1;

    // Loads the table (one read per buffer). Stream errors pass through.
    // posSectors 0 is a table that the file leaves out (stream files of
    // other tools): it holds no grains and is not read. zeroedGrainEntries:
    // the extent's header has the zeroed-grain flag.
    CVMDKGrainTable(zu::IIOStream* stream, int access, long long grainSizeSectors, long long posSectors,
                    long long redundantPosSectors, long long slotSizeTablePosSectors, int entryCount,
                    bool zeroedGrainEntries = false);

    // Reads another table of the same file into this one, reusing its
    // buffers: for scans of every table. Only for tables opened read-only,
    // which never hold changes.
    void reload(long long posSectors, long long slotSizeTablePosSectors);

    // Position 0 means not stored (slot 0 then), zeroedGrainPosSectors all
    // zeros (slot 0); without slot-size table a stored grain's slot is the
    // grain size.
    void getGrainInfo(long long index, long long& posSectors, long long& slotSizeSectors) const;
    // Marks the table dirty only where a value changes.
    void setGrainInfo(long long index, long long posSectors, long long slotSizeSectors);
    // Changes made here and not yet written.
    bool hasChanges() const { return entriesDirty || slotSizesDirty; }
    // Those, or a redundant copy found out of date.
    bool hasUnflushedChanges() const { return hasChanges() || redundantStale; }
    bool hasSlotSizes() const { return slotSizes.getUsed() > 0; }
    // Each writes its part when it has changes and says whether it wrote;
    // a part stays dirty until its writes succeeded, so a later flush retries.
    bool flushSlotSizesToStream();
    // The entries, to the table and its redundant copy (the copy alone when
    // only it is out of date).
    bool flushEntriesToStream();
    void flushChangesToStream()
    {
        flushSlotSizesToStream();
        flushEntriesToStream();
    }

private:
    void load();
    zu::CProps uriProps() const;

    zu::P<zu::IIOStream> stream;
    int access;
    long long grainSizeSectors;
    long long posSectors;
    long long redundantPosSectors;
    long long slotSizeTablePosSectors;
    int entryCount;
    bool zeroedGrainEntries;
    zu::TBuffer<unsigned int> entries;
    bool entriesDirty = false;
    // The redundant copy on disk differs from the entries.
    bool redundantStale = false;
    zu::TBuffer<unsigned short> slotSizes;
    bool slotSizesDirty = false;
};

} // namespace kord
