// Walks the metadata of a disk and of its parent chain and lists every
// inconsistency it finds, without changing a byte.
//
// Each extent is opened read-only through the library's own reading code
// (header, grain directory, grain tables, allocator); what those refuse to
// open is itself a finding. On top of what opening checks, the walk looks
// at every grain entry: where it points (into the metadata, past the end of
// the file, over another grain), what a compressed grain's header says
// (its first virtual sector and its size) and whether its slot holds it;
// it compares the grain tables with their redundant copies, the header's
// capacity with the descriptor's extent line, and the stream-optimized
// trail, and reports extents left marked as not cleanly closed.
//
// Findings are damage in the files. What keeps the check from running at
// all (a missing file, a wrong password, a lock held by another process, a
// read error) is thrown instead.
#pragma once

#include "base/CIOError.h"
#include "base/IFileSystem.h"
#include "disk/CVMDKDisk.h"
#include "extent/CVMDKSparseExtentFile.h"

#include <functional>
#include <set>
#include <vector>

namespace kord {

class CVMDKChecker {
public:
    enum Kind {
        kindRefused,              // the library refuses to open the disk or extent
        kindDirectoriesDisagree,  // grain directory and redundant directory differ
        kindTablesOverlap,        // two grain tables share sectors
        kindGrainInMetadata,      // a grain entry points before the grain area
        kindGrainPastEnd,         // a grain lies (partly) past the end of the file
        kindGrainsOverlap,        // two grains' slots share sectors
        kindBadGrainHeader,       // a compressed grain's LBA or size does not fit
        kindSlotTooSmall,         // a slot is smaller than its grain's data
        kindDamagedTrail,         // a stream-optimized file does not end with its trail
        kindCapacityTooSmall,     // header capacity below the descriptor's extent line
        kindUncleanShutdown,      // the extent was not closed cleanly
        kindParentChanged,        // the parent's content ID is not the one the child expects
    };

    struct CFinding {
        Kind kind;
        zu::CURI uri;
        zu::String message;
        zu::CProps props;
    };

    // Called after each grain table: the bytes of the current disk's
    // virtual contents whose grains have been checked, and the disk's size
    // (each disk of a chain starts again at 0).
    using ProgressFunction = std::function<void(long long doneBytes, long long totalBytes)>;

    // Listing stops after this many findings (a file of garbage would
    // otherwise give one per grain).
    static constexpr size_t maxFindings = 10000;

    // password may be empty for disks without encryption; it is used for
    // the whole chain, as the library does.
    CVMDKChecker(zu::IFileSystem* fileSystem, const zu::CURI& uri, const zu::String& password);

    void setProgressFunction(const ProgressFunction& function) { progress = function; }

    // Opens the disk and each parent read-only (taking their locks, one at
    // a time) and returns what it found. Throws what stops the check.
    std::vector<CFinding> check();

    // "refused", "directoriesDisagree", ...: stable names for reports.
    static const char* getKindName(Kind kind);

    // Extent line `index` of an open disk as a read-only sparse extent, for
    // inspection; null when the file does not exist yet because the disk
    // makes its extent files on demand. Throws what the extent's
    // constructor throws.
    static zu::P<CVMDKSparseExtentFile> openExtentForInspection(CVMDKDisk* disk, int index);

private:
    // Where a grain lies, for the overlap test: 8 bytes per written grain.
    struct CPlacement {
        std::uint32_t posSectors;
        std::uint32_t slotSectors;
        bool operator<(const CPlacement& other) const { return posSectors < other.posSectors; }
    };
    struct CExtentContext;

    zu::P<CVMDKDisk> openDisk(const zu::CURI& uri);
    void checkDisk(CVMDKDisk* disk);
    void checkExtent(CVMDKDisk* disk, int index);
    void checkHeader(CExtentContext& context, long long lineSectors);
    void checkDirectories(CExtentContext& context);
    void compareTableWithCopy(CExtentContext& context, long long tableIndex, long long redundantPosSectors);
    void checkGrains(CExtentContext& context);
    void checkGrain(CExtentContext& context, long long grainIndex, long long posSectors, long long slotSectors);
    long long checkCompressedGrain(CExtentContext& context, long long grainIndex, long long posSectors);
    void checkGrainOverlaps(CExtentContext& context);
    // The parent, opened read-only, and compared with what the child expects.
    zu::P<CVMDKDisk> openParent(CVMDKDisk* child);
    void addFinding(Kind kind, const zu::CURI& uri, const zu::String& message, const zu::CProps& props);
    void addRefusal(const zu::CIOError& error, const zu::CURI& fallbackURI);
    bool full() const { return findings.size() >= maxFindings; }

    zu::P<zu::IFileSystem> fileSystem;
    zu::CURI mainURI;
    zu::String password;
    ProgressFunction progress;
    std::vector<CFinding> findings;
    // Reused from extent to extent.
    std::vector<CPlacement> placements;
};

} // namespace kord
