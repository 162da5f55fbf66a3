#include "extent/CVMDKSparseExtentVerifier.h"

#include "extent/CVMDKSparseExtentFile.h"
#include "format/VMDKEmptyLayout.h"
#include "format/VMDKMarker.h"

#include <algorithm>
#include <cstdint>
#include <vector>

namespace kord {

namespace {

long long sectorsFor(long long bytes) { return (bytes + vmdkSectorSize - 1) / vmdkSectorSize; }

// Where one grain of one bit per grain of the file would cost more than
// this, slots are sorted instead.
constexpr long long maxBitmapBytes = 32LL * 1024 * 1024;

// A metadata structure of the extent file, for the overlap test.
struct CStructure {
    enum What : std::uint8_t {
        header,
        descriptorArea,
        directory,
        redundantDirectory,
        table,
        redundantTable,
        slotSizeDirectory,
        slotSizeTable,
    };
    long long startSectors;
    std::uint32_t index;
    What what;

    // By position, then kind and index: a report names the same pair each time.
    bool operator<(const CStructure& other) const
    {
        if (startSectors != other.startSectors) return startSectors < other.startSectors;
        return what != other.what ? what < other.what : index < other.index;
    }

    zu::String describe() const
    {
        static const char* const names[] = {"the header",        "the descriptor area", "the grain directory",
                                            "the redundant grain directory", "grain table", "redundant grain table",
                                            "the slot-size directory", "slot-size table"};
        zu::String name(names[what]);
        bool numbered = what == table || what == redundantTable || what == slotSizeTable;
        return numbered ? name + " " + zu::toString(static_cast<long long>(index)) : name;
    }
};

} // namespace

// Finds grains whose slots share sectors. Slots of one grain that start on
// a grain boundary (all of them in files the library and other tools lay
// out) are marked in one bit per grain of the file; the others, and all
// slots of extents whose slots differ in size, are sorted at the end.
class CVMDKSparseExtentVerifier::COverlapFinder {
public:
    COverlapFinder(const CVMDKSparseExtentVerifier& verifier, long long grainSizeSectors, bool uniformSlots,
                   long long fileSectors)
        : verifier(verifier), grainSectors(grainSizeSectors)
    {
        // Grain sizes are powers of two in practice: one shift per grain
        // instead of two divisions.
        while ((1LL << grainShift) < grainSectors) ++grainShift;
        if ((1LL << grainShift) != grainSectors) grainShift = -1;
        // Positions were checked to lie in the file: bucket + 1 stays in range.
        long long buckets = fileSectors / grainSizeSectors + 2;
        if (uniformSlots && buckets / 8 <= maxBitmapBytes) bits.assign(static_cast<size_t>((buckets + 63) / 64), 0);
    }

    void add(long long grainIndex, long long posSectors, long long slotSectors)
    {
        long long bucket = grainShift >= 0 ? posSectors >> grainShift : posSectors / grainSectors;
        if (bits.empty() || bucket * grainSectors != posSectors) {
            placements.push_back(CPlacement{static_cast<std::uint32_t>(posSectors), static_cast<std::uint32_t>(slotSectors),
                                            static_cast<std::uint32_t>(grainIndex)});
            return;
        }
        if (testAndSet(bucket)) report(posSectors, slotSectors, posSectors);
    }

    // Calls visit(posSectors, sectors) for every run of sectors in [start,
    // end) that no slot covers; after finish.
    void forEachGap(long long startSectors, long long endSectors, const GapVisitor& visit)
    {
        if (bits.empty()) {
            long long covered = startSectors;
            for (const CPlacement& p : placements) {
                if (p.posSectors > covered) visit(covered, p.posSectors - covered);
                covered = std::max(covered, static_cast<long long>(p.posSectors) + p.slotSectors);
            }
            return;
        }
        // Whole grains of the file only; a grain that a slot off the
        // boundary touches is taken.
        for (const CPlacement& p : placements) {
            testAndSet(p.posSectors / grainSectors);
            testAndSet((p.posSectors + p.slotSectors - 1) / grainSectors);
        }
        long long last = endSectors / grainSectors;
        for (long long bucket = (startSectors + grainSectors - 1) / grainSectors; bucket < last;) {
            long long free = bucket;
            while (free < last && !isSet(free)) ++free;
            if (free > bucket) visit(bucket * grainSectors, (free - bucket) * grainSectors);
            bucket = free + 1;
        }
    }

    void finish()
    {
        if (!bits.empty()) {
            // A slot off the boundary covers parts of two grains of the file.
            for (const CPlacement& p : placements) {
                long long bucket = p.posSectors / grainSectors;
                if (isSet(bucket)) report(p.posSectors, p.slotSectors, bucket * grainSectors);
                if (isSet(bucket + 1)) report(p.posSectors, p.slotSectors, (bucket + 1) * grainSectors);
            }
        }
        std::sort(placements.begin(), placements.end());
        long long end = 0;
        // The slot reaching furthest so far, and how far the others reach.
        CPlacement* owner = nullptr;
        long long othersEnd = 0;
        for (CPlacement& p : placements) {
            if (p.posSectors < end && !(othersEnd <= p.posSectors && shortenOverstatedSlot(*owner, p.posSectors)))
                report(p.posSectors, p.slotSectors, owner->posSectors);
            end = owner ? static_cast<long long>(owner->posSectors) + owner->slotSectors : 0;
            if (p.posSectors + static_cast<long long>(p.slotSectors) > end) {
                othersEnd = std::max(othersEnd, end);
                end = p.posSectors + static_cast<long long>(p.slotSectors);
                owner = &p;
            } else {
                othersEnd = std::max(othersEnd, p.posSectors + static_cast<long long>(p.slotSectors));
            }
        }
    }

    // Slots that reached into the next grain's and were cut to end there.
    std::vector<CVMDKSparseExtentVerifier::CShortenedSlot> shortened;

private:
    struct CPlacement {
        std::uint32_t posSectors;
        std::uint32_t slotSectors;
        std::uint32_t grainIndex;
        bool operator<(const CPlacement& other) const { return posSectors < other.posSectors; }
    };

    // A grain that moved when its data grew has a larger slot recorded for
    // it before its table entry points at the new place: a flush cut short
    // between the two leaves the old place with the new size. Where the
    // data stored there ends before the next grain, the slot ends there too.
    bool shortenOverstatedSlot(CPlacement& slot, long long nextPosSectors)
    {
        long long room = nextPosSectors - slot.posSectors;
        long long stored = verifier.measureStoredSectors(slot.posSectors);
        if (stored < 0 || stored > room) return false;
        slot.slotSectors = static_cast<std::uint32_t>(room);
        shortened.push_back(CShortenedSlot{slot.grainIndex, slot.posSectors, room});
        return true;
    }

    bool isSet(long long bucket) const { return (bits[static_cast<size_t>(bucket / 64)] >> (bucket % 64)) & 1; }
    bool testAndSet(long long bucket)
    {
        bool was = isSet(bucket);
        bits[static_cast<size_t>(bucket / 64)] |= std::uint64_t(1) << (bucket % 64);
        return was;
    }

    void report(long long posSectors, long long slotSectors, long long otherPosSectors) const
    {
        verifier.report(CVMDKProblem::kindGrainsOverlap, "VMDK grains overlap in the extent file.",
                        zu::CProps()
                            .set("posSectors", posSectors)
                            .set("slotSizeSectors", slotSectors)
                            .set("otherPosSectors", otherPosSectors));
    }

    const CVMDKSparseExtentVerifier& verifier;
    long long grainSectors;
    int grainShift = 0;
    std::vector<std::uint64_t> bits;
    std::vector<CPlacement> placements;
};

CVMDKSparseExtentVerifier::CVMDKSparseExtentVerifier(const CVMDKSparseExtentFile& extent, const VMDKProblemSink& sink)
    : extent(extent), sink(sink), fileSizeBytes(extent.getStream()->getLength()),
      grainAreaStartSectors(extent.getGrainAreaStartSectors()),
      // A compressed grain needs at least its header's sector; how much
      // more its header says, and that is checked when it is read.
      neededSectors(extent.getCompressed() ? 1 : extent.getGrainSizeSectors())
{
}

void CVMDKSparseExtentVerifier::report(CVMDKProblem::Kind kind, const zu::String& message, zu::CProps props) const
{
    props.set("uri", extent.getURI().toString(true));
    sink(CVMDKProblem{kind, message, props});
}

bool CVMDKSparseExtentVerifier::verifyGrainEntry(long long grainIndex, long long posSectors, long long slotSectors) const
{
    if (posSectors <= 0) return false;
    auto misplaced = [&](CVMDKProblem::Kind kind, const char* message) {
        report(kind, message,
               zu::CProps()
                   .set("grainIndex", grainIndex)
                   .set("posSectors", posSectors)
                   .set("slotSizeSectors", slotSectors)
                   .set("fileSize", fileSizeBytes)
                   .set("grainAreaStart", grainAreaStartSectors));
        return false;
    };
    if (posSectors < grainAreaStartSectors)
        return misplaced(CVMDKProblem::kindGrainInMetadata, "VMDK grain table entry points into the metadata.");
    if (posSectors > fileSizeBytes / vmdkSectorSize - neededSectors)
        return misplaced(CVMDKProblem::kindGrainPastEnd, "VMDK grain table entry points past the end of the extent file.");
    if (slotSectors < neededSectors)
        return misplaced(CVMDKProblem::kindSlotTooSmall, "VMDK grain table entry has a slot too small for its grain.");
    return true;
}

long long CVMDKSparseExtentVerifier::verifyLayout() const
{
    const CVMDKSparseExtentHeader& header = extent.getHeader();
    CVMDKGrainDirectory* directory = extent.getGrainDirectory();
    const zu::TBuffer<unsigned int>& entries = directory->getEntries();
    const zu::TBuffer<unsigned int>& redundant = directory->getRedundantEntries();
    const zu::TBuffer<unsigned int>& slotTables = directory->getSlotSizeDirectory();
    long long entryCount = directory->getGrainTableEntryCount();
    long long directorySectors = std::max(1LL, vmdkDirectorySectors(directory->getGrainTableCount()));
    long long sizes[] = {1,
                         header.descriptorSize,
                         directorySectors,
                         directorySectors,
                         sectorsFor(entryCount * 4),
                         sectorsFor(entryCount * 4),
                         directorySectors + 1,
                         sectorsFor(entryCount * 2)};

    std::vector<CStructure> structures;
    structures.reserve(static_cast<size_t>(4 + entries.getUsed() + redundant.getUsed() + slotTables.getUsed()));
    structures.push_back({0, 0, CStructure::header});
    if (header.descriptorOffset > 0 && header.descriptorSize > 0)
        structures.push_back({header.descriptorOffset, 0, CStructure::descriptorArea});
    structures.push_back({header.gdOffset, 0, CStructure::directory});
    if (header.rgdOffset > 0) structures.push_back({header.rgdOffset, 0, CStructure::redundantDirectory});
    // The slot-size directory starts with its marker sector.
    if (directory->getSlotSizeDirectoryPosSectors() > 0)
        structures.push_back({directory->getSlotSizeDirectoryPosSectors() - 1, 0, CStructure::slotSizeDirectory});
    // Position 0: a table that another tool's stream file leaves out.
    auto addTables = [&](const zu::TBuffer<unsigned int>& positions, CStructure::What what) {
        for (long long i = 0; i < positions.getUsed(); ++i)
            if (positions[i] != 0) structures.push_back({positions[i], static_cast<std::uint32_t>(i), what});
    };
    addTables(entries, CStructure::table);
    addTables(redundant, CStructure::redundantTable);
    addTables(slotTables, CStructure::slotSizeTable);

    std::sort(structures.begin(), structures.end());
    // Each structure against the one reaching furthest among those before it.
    const CStructure* furthest = nullptr;
    long long end = 0;
    for (const CStructure& s : structures) {
        if (furthest && s.startSectors < end)
            report(CVMDKProblem::kindTablesOverlap,
                   "VMDK metadata overlaps in the extent file: " + furthest->describe() + " and " + s.describe() + ".",
                   zu::CProps().set("posSectors", furthest->startSectors).set("otherPosSectors", s.startSectors));
        if (s.startSectors + sizes[s.what] > end) {
            end = s.startSectors + sizes[s.what];
            furthest = &s;
        }
    }
    return end;
}

// Another tool's stream file records no slot sizes: a grain's room is what
// its data takes, from the size in its first sector.
long long CVMDKSparseExtentVerifier::measureUnrecordedSlot(long long posSectors) const
{
    return measureStoredSectors(posSectors, sink);
}

long long CVMDKSparseExtentVerifier::measureStoredSectors(long long posSectors, const VMDKProblemSink& problems) const
{
    if (!extent.getCompressed() || posSectors >= fileSizeBytes / vmdkSectorSize) return -1;
    unsigned char first[vmdkSectorSize];
    zu::IIOStream* stream = extent.getStream();
    stream->seek(posSectors * vmdkSectorSize);
    stream->read(first, vmdkSectorSize);
    VMDKProblemSink ignore = [](const CVMDKProblem&) {};
    long long stored = extent.getGrain()->checkStoredCompressedGrain(first, posSectors, extent.getUnrecordedSlotSectors(),
                                                                     problems ? problems : ignore);
    return stored < 0 ? -1 : sectorsFor(stored);
}

CVMDKSparseExtentVerifier::CGrainScan CVMDKSparseExtentVerifier::verifyGrains(const GrainVisitor& onGrain,
                                                                               const TableProgress& onTable,
                                                                               const GapVisitor& onGap) const
{
    CVMDKGrainDirectory* directory = extent.getGrainDirectory();
    long long grainSize = extent.getGrainSizeSectors();
    long long perTable = directory->getGrainTableEntryCount();
    long long grains = directory->getGrainCount();
    bool uniformSlots = !extent.getCompressed() && !directory->getHaveSlotSizeInfo();
    long long fileSectors = fileSizeBytes / vmdkSectorSize;
    COverlapFinder overlaps(*this, grainSize, uniformSlots, fileSectors);
    CGrainScan scan;
    scan.referencedEndSectors = grainAreaStartSectors;
    directory->forEachGrainTable([&](long long t, const CVMDKGrainTable& table) {
        long long inTable = std::min(perTable, grains - t * perTable);
        for (long long i = 0; i < inTable; ++i) {
            long long pos = 0, slot = 0;
            table.getGrainInfo(i, pos, slot);
            long long grainIndex = t * perTable + i;
            if (!verifyGrainEntry(grainIndex, pos, slot)) continue;
            if (extent.isForeignStream() && (slot = measureUnrecordedSlot(pos)) < 0) continue;
            ++scan.writtenGrains;
            scan.slotSectorsInFile += std::min(pos + slot, fileSectors) - pos;
            scan.referencedEndSectors = std::max(scan.referencedEndSectors, pos + slot);
            overlaps.add(grainIndex, pos, slot);
            if (onGrain) onGrain(grainIndex, pos, slot);
        }
        if (onTable) onTable(t + 1);
    });
    overlaps.finish();
    scan.shortenedSlots = std::move(overlaps.shortened);
    if (onGap) overlaps.forEachGap(extent.getGrainAreaStartSectors(), scan.referencedEndSectors, onGap);
    return scan;
}

} // namespace kord
