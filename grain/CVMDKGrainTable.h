// One grain table of a sparse extent file in memory: for each grain it
// covers, the sector where the grain's data starts (0: not stored) and, in
// extents with a slot-size directory, the sectors reserved for it.
//
// Entry encodings (little-endian, packed):
//   grain table      4 bytes per grain  sector of the grain's data, 0 = none
//   slot-size table  2 bytes per grain  sectors of the grain's slot
// Tables are made by the grain directory, which checked their positions,
// and live in the grain table cache, which decides when they are written
// back and dropped. The destructor writes unflushed changes.
#pragma once

#include "base/IIOStream.h"
#include "base/TBuffer.h"

namespace kord {

class CVMDKGrainTable : public zu::CBase {
public:
    // Loads the table (one read per buffer). Stream errors pass through.
    CVMDKGrainTable(zu::IIOStream* stream, int access, long long grainSizeSectors, long long posSectors,
                    long long redundantPosSectors, long long slotSizeTablePosSectors, int entryCount);
    ~CVMDKGrainTable() override;

    // Reads another table of the same file into this one, reusing its
    // buffers: for scans of every table. Only for tables opened read-only,
    // which never hold changes.
    void reload(long long posSectors, long long slotSizeTablePosSectors);

    // Position 0 means not stored (slot 0 then); without slot-size table a
    // stored grain's slot is the grain size.
    void getGrainInfo(long long index, long long& posSectors, long long& slotSizeSectors) const;
    // Marks the table dirty only where a value changes.
    void setGrainInfo(long long index, long long posSectors, long long slotSizeSectors);
    bool hasUnflushedChanges() const { return entriesDirty || slotSizesDirty; }
    bool hasSlotSizes() const { return slotSizes.getUsed() > 0; }
    // Writes the dirty buffers (the entries also to the redundant copy).
    void flushChangesToStream();

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
    zu::TBuffer<unsigned int> entries;
    bool entriesDirty = false;
    zu::TBuffer<unsigned short> slotSizes;
    bool slotSizesDirty = false;
};

} // namespace kord
