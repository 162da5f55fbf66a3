// The checks a sparse extent file must pass before the library writes to
// it, shared by the extent (which refuses to write) and the checker (which
// lists what it finds), so that the two always agree.
//
// The library writes grain tables back to the sectors the directories
// name, rewrites grains in place at the sectors the tables name, and
// appends new grains behind everything the tables reference. A damaged or
// hostile file must therefore not let any of these land on other data:
// - the layout: metadata structures (header, descriptor area, both
//   directories, every grain table and its copy, the slot-size directory
//   and tables) do not share sectors;
// - the grains: every written grain's slot lies in the grain area and in
//   the file, has a size the grain fits, and shares no sector with another
//   grain's slot (in another tool's stream file, which records no slots,
//   a grain's slot is what its data takes).
// Reads need less and check grain by grain (verifyGrainEntry), so that
// what is intact in a damaged file can still be read.
#pragma once

#include "format/CVMDKProblem.h"

#include <functional>
#include <vector>

namespace kord {

class CVMDKSparseExtentFile;

class CVMDKSparseExtentVerifier {
public:
    // What the scan of all grain tables found in the grains that pass.
    // A grain's slot that reached into the next one's, and the sectors it
    // was cut to (see verifyGrains).
    struct CShortenedSlot {
        long long grainIndex;
        long long posSectors;
        long long slotSectors;
    };
    struct CGrainScan {
        long long writtenGrains = 0;
        // A compressed grain's slot may end past the end of the file (its
        // data is checked when it is read); only what lies in the file counts.
        long long slotSectorsInFile = 0;
        // The end of the grain area and of every slot a table references: no
        // new grain may start before it.
        long long referencedEndSectors = 0;
        std::vector<CShortenedSlot> shortenedSlots;
    };
    // Called for each written grain that passes, and after each table
    // (with the number of tables done).
    using GrainVisitor = std::function<void(long long grainIndex, long long posSectors, long long slotSectors)>;
    using TableProgress = std::function<void(long long tablesDone)>;
    // Called for each run of the grain area, below the referenced end, that
    // no slot covers.
    using GapVisitor = std::function<void(long long posSectors, long long sectors)>;

    // The extent must outlive the verifier. Problems go to the sink; with
    // throwVMDKProblem the first one is thrown as zu::CIOError code 5.
    CVMDKSparseExtentVerifier(const CVMDKSparseExtentFile& extent, const VMDKProblemSink& sink);

    // One grain table entry: true when the grain is stored and its slot is
    // where grain data may be; a misplaced one is reported (false).
    bool verifyGrainEntry(long long grainIndex, long long posSectors, long long slotSectors) const;
    // The layout, from what the directories hold in memory: no table I/O.
    // Sorts the metadata structures once (16 bytes each). Returns the end
    // of the structure reaching furthest, in sectors.
    long long verifyLayout() const;
    // Every grain table, read once (cached tables as they are in memory).
    // Finds shared slots in one bit per grain of the file where all slots
    // are one grain (uncompressed extents), else in 12 bytes per written
    // grain. A compressed grain's slot that reaches into the next grain's
    // while its data ends before it (left by a flush cut short after a
    // moved grain's larger slot size) is not reported: it is cut to end
    // there and listed in shortenedSlots.
    CGrainScan verifyGrains(const GrainVisitor& onGrain = nullptr, const TableProgress& onTable = nullptr,
                            const GapVisitor& onGap = nullptr) const;

private:
    class COverlapFinder;

    void report(CVMDKProblem::Kind kind, const zu::String& message, zu::CProps props) const;
    long long measureUnrecordedSlot(long long posSectors) const;
    // The sectors a compressed grain's data takes, from its first sector;
    // -1 (the problem sent to `problems`) where it cannot be read.
    long long measureStoredSectors(long long posSectors, const VMDKProblemSink& problems = nullptr) const;

    const CVMDKSparseExtentFile& extent;
    VMDKProblemSink sink;
    long long fileSizeBytes;
    long long grainAreaStartSectors;
    long long neededSectors;
};

} // namespace kord
