// The grain directory of one sparse extent file: where each grain table (and
// its redundant copy) lies, and, in our compressed extents, the slot-size
// directory that follows the last grain table and gives each table's
// slot-size table.
//
// Directory entries (little-endian, 32 bits each, one per grain table):
//   grain directory            sector of the grain table
//   redundant grain directory  sector of the table's second copy
//   slot-size directory        sector of the table's slot-size table; it
//                              follows a marker sector of type
//                              vmdkMarkerSlotSizeDirectory just behind the
//                              later copy of the last grain table
//
// The directories are read once, whole, and checked: the library writes
// tables back to the positions they hold, so a position inside the header
// or the descriptor area, or past the end of the file, is refused before
// anything is written. Grain tables are loaded on demand, 32 at a time, into
// the shared grain table cache. Directory entries never change after the
// file is laid out. Tables are written only by flushChangesToStream, which
// the extent calls in its crash-safe order; dropping the directory drops
// unflushed changes.
//
// Stream-optimized files of other tools have no slot-size directory, and
// leave out the grain tables of grains never written (directory entry 0).
// Where the caller accepts them, such a directory is read-only: a grain's
// room in the file is not known, so nothing can be rewritten in place.
#pragma once

#include "base/CIOError.h"
#include "base/IIOStream.h"
#include "base/TBuffer.h"
#include "grain/CVMDKGrainTable.h"
#include "grain/CVMDKGrainTableCache.h"

#include <functional>
#include <set>

namespace kord {

class CVMDKGrainDirectory : public zu::CBase {
public:
    // Where metadata may lie in the file, from its header and size.
    struct CBounds {
        long long descriptorOffsetSectors = 0; // 0: no descriptor area
        long long descriptorSizeSectors = 0;
        long long overHeadSectors = 0;         // grain data starts here
        long long fileSizeBytes = 0;
    };

    // What the extent's header allows beyond our own layout.
    struct COptions {
        // Grain table entries of 1 mean "all zeros" (the header's flag).
        bool zeroedGrainEntries = false;
        // A compressed extent without slot-size directory is another
        // tool's stream file (read-only) instead of an error.
        bool acceptForeignStreams = false;
    };

    static constexpr int tablesPerBatch = 32;

    // Reads and checks the directories and finds the slot-size directory.
    // Throws zu::CIOError code 5 for a misplaced directory or entry, and
    // zu::CError "Slot size directory not found in compressed VMDK." when a
    // compressed extent has none and options do not accept it.
    CVMDKGrainDirectory(zu::IIOStream* stream, int access, long long posSectors, long long redundantPosSectors,
                        long long capacitySectors, long long grainSizeSectors, int grainTableEntryCount,
                        bool compressed, CVMDKGrainTableCache* cache, const CBounds& bounds,
                        const COptions& options);
    ~CVMDKGrainDirectory() override;

    // Grains and tables of an extent (rounded up).
    static long long calcExtentGrainCount(long long capacitySectors, long long grainSizeSectors);
    static long long calcExtentGrainTableCount(long long capacitySectors, long long grainSizeSectors,
                                              int grainTableEntryCount);

    bool getHaveSlotSizeInfo() const { return slotSizeDirectory.getUsed() > 0; }
    // A compressed extent without slot-size directory (another tool's
    // stream file): read-only whatever access was asked for.
    bool isForeignStream() const { return compressed && !getHaveSlotSizeInfo(); }
    long long getGrainCount() const { return grainCount; }
    long long getGrainTableCount() const { return grainTableCount; }
    int getGrainTableEntryCount() const { return grainTableEntryCount; }
    // Sector of the slot-size directory (one past its marker); 0 when none.
    long long getSlotSizeDirectoryPosSectors() const { return slotSizeDirectoryPosSectors; }
    // The sector after the last metadata structure that the directories
    // name (directories, grain tables, slot-size directory and tables).
    long long getMetadataEndSectors() const { return metadataEndSectors; }
    const zu::TBuffer<unsigned int>& getEntries() const { return entries; }
    const zu::TBuffer<unsigned int>& getRedundantEntries() const { return redundantEntries; }
    const zu::TBuffer<unsigned int>& getSlotSizeDirectory() const { return slotSizeDirectory; }

    // From the cache, or loaded with its batch of 32 (tables of the batch
    // that are still cached are kept as they are).
    zu::P<CVMDKGrainTable> getGrainTable(long long tableIndex);
    // Calls visit(tableIndex, table) for every grain table in index order:
    // a cached table as it is in the cache (with changes not yet written),
    // any other read into one reused table that is not cached. A scan of
    // all tables so reads each table once, evicts nothing and allocates
    // nothing per table.
    void forEachGrainTable(const std::function<void(long long, const CVMDKGrainTable&)>& visit);
    void getGrainInfo(long long grainIndex, long long& posSectors, long long& slotSizeSectors);
    void setGrainInfo(long long grainIndex, long long posSectors, long long slotSizeSectors);
    // Writes the changed slot-size tables, calls `barrier` when there were
    // any (a grain table must not reach the disk before the slot sizes of
    // the grains it points at), then writes the changed grain tables and
    // their redundant copies, and the redundant copies found out of date
    // since the last flush. Returns whether grain tables were written.
    bool flushChangesToStream(const std::function<void()>& barrier);
    // Some of its tables hold changes not yet written.
    bool hasChangedTables() { return cache->hasChangedTablesFromDirectory(this); }

private:
    void readDirectory(long long posSectors, zu::TBuffer<unsigned int>& out, const char* what);
    // Returns the index of the first entry 0 (a table left out), or -1;
    // such entries are refused unless mayLeaveOut.
    long long checkEntries(const zu::TBuffer<unsigned int>& table, long long tableSectors, const char* what,
                           bool mayLeaveOut);
    zu::CIOError invalidEntry(const char* what, long long tableIndex, long long posSectors) const;
    bool overlapsHeaderOrDescriptor(long long startSectors, long long sectors) const;
    long long findSlotSizeDirectory();
    zu::CProps uriProps() const;

    zu::P<zu::IIOStream> stream;
    int access;
    zu::P<CVMDKGrainTableCache> cache;
    long long posSectors;
    long long redundantPosSectors;
    long long slotSizeDirectoryPosSectors = 0;
    long long grainSizeSectors;
    int grainTableEntryCount;
    bool compressed;
    long long grainCount;
    long long grainTableCount;
    zu::TBuffer<unsigned int> entries;
    zu::TBuffer<unsigned int> redundantEntries;
    zu::TBuffer<unsigned int> slotSizeDirectory;
    long long capacitySectors;
    CBounds bounds;
    COptions options;
    long long metadataEndSectors = 1;
    // Tables loaded for writing whose redundant copy differed.
    std::set<long long> staleRedundantTables;
};

} // namespace kord
