// Hands out storage for grains in one sparse extent file, and records each
// grain's position and slot size in the grain directory.
//
// New grains go to the end of the grain data. A grain that moved (a
// compressed or encrypted grain is rewritten into a fresh slot, so that a
// torn write can never destroy its last durable version) gives its old slot
// back; that slot is handed out again only after the extent's tables have
// become durable without pointing at it. A slot handed out since the tables
// were last written is pointed at by nothing that could survive a crash: it
// may be rewritten in place and reused at once. Freed slots are kept in
// memory; those still free when the extent closes are found again (as
// space no table points at) when it is next opened for writing.
//
// The end of the grain data is the later of the file's end and the end of
// every slot that a grain table references: a damaged table may name
// sectors past the file's end, and a grain appended there would be read
// back as that other grain too. The owner tells the allocator that end
// (setReferencedEnd) after reading every table; until then it allocates
// nothing.
//
// Stream-optimized files must end with a trail (footer marker, footer,
// end-of-stream marker). New grains overwrite it and it is written again
// behind them when the allocator is flushed. A file that ends with the
// start of our trail, cut short by an interrupted write, gets its trail back
// in place at the next flush; a file whose end is something else keeps
// those bytes, and new grains and the trail go after them.
//
// Slots larger than their data are left as holes where they extend the
// file (they read as zeros and take no room on file systems with sparse
// files); bytes the file already had inside a new slot at the end are
// overwritten with zeros.
//
// Nothing is written by the destructor: the extent flushes in its order.
#pragma once

#include "base/IIOStream.h"
#include "base/TBuffer.h"
#include "grain/CVMDKGrainDirectory.h"
#include "grain/IVMDKGrainAllocator.h"

#include <map>
#include <memory_resource>
#include <set>
#include <vector>

namespace kord {

class CVMDKGrainAllocator : public zu::CBase, public IVMDKGrainAllocator {
public:
    // grainAreaStartBytes: where grain data may begin (a multiple of 512);
    // trailPosBytes: where the trail is expected to begin.
    CVMDKGrainAllocator(zu::IIOStream* stream, int access, long long grainAreaStartBytes, long long trailPosBytes,
                        CVMDKGrainDirectory* directory, const zu::TBuffer<unsigned char>& trail);

    // Moves the allocation point to at least endBytes (rounded up to a
    // sector), the end of every slot the grain tables reference, and
    // allows allocation.
    void setReferencedEnd(long long endBytes);

    void flushChangesToStream() override;
    long long allocNewGrain(long long extentGrainIndex, const void* data, int size, int slotSizeSectors) override;
    long long allocNewGrainKeepBuffer(long long extentGrainIndex, const zu::TConstBufferSlice<unsigned char>& data,
                                      int slotSizeSectors) override;
    bool isSlotUncommitted(long long posSectors) const override;
    void releaseSlot(long long posSectors, long long slotSizeSectors) override;
    // Space of the grain area that no table on disk points at (left by
    // grains that moved in an earlier session): handed out again at once.
    void addFreeSpace(long long posSectors, long long sectors);

    // The grain tables are about to be written: from now on a table on
    // disk may point at any slot handed out so far.
    void beginCommit();
    // The tables written since beginCommit are durable: the slots released
    // before it are pointed at by nothing on disk and may be handed out.
    void commit();

    long long getAllocationPointBytes() const { return allocationPoint; }
    // True when the trail was found at the end of the file (or none is expected).
    bool isTrailIntact() const { return trailIntact; }
    // The file ends with our trail, whole or cut short: what lies before it
    // and behind every slot the tables reference is ours too.
    bool endsWithOurTrail() const { return !trail.isEmpty() && (trailIntact || trailCut); }
    // Sectors of freed slots waiting to be handed out again.
    long long getFreeSectors() const;

private:
    struct CSlot {
        long long posSectors;
        long long sectors;
    };

    long long findCutTrail(long long grainAreaStartBytes) const;
    void trimFreeEnd();
    long long allocNewGrainImpl(long long extentGrainIndex, const void* data, int size,
                                const zu::TConstBufferSlice<unsigned char>* keep, int slotSizeSectors);
    long long takeFreeSlot(long long sectors);
    long long appendSlot(const void* data, int size, const zu::TConstBufferSlice<unsigned char>* keep,
                         long long slotBytes);
    void writeAt(long long position, const void* data, int size, const zu::TConstBufferSlice<unsigned char>* keep);

    zu::P<zu::IIOStream> stream;
    int access;
    zu::P<CVMDKGrainDirectory> directory;
    zu::TBuffer<unsigned char> trail;
    zu::TBuffer<unsigned char> zeros;
    long long allocationPoint;
    bool trailIntact = true;
    bool trailCut = false;
    bool trailNeedsWrite = false;
    bool referencedEndKnown = false;
    // The nodes of the free and reused slots' trees come from a pool that
    // takes back what is erased: grains that move, slot after slot,
    // allocate nothing once the pool has grown.
    std::pmr::unsynchronized_pool_resource slotNodes;
    // Free slots by size (best fit), and slots released but maybe still
    // pointed at by durable tables.
    std::pmr::multimap<long long, long long> freeSlots{&slotNodes};
    std::vector<CSlot> releasedSlots;
    // How many of releasedSlots the tables being written no longer point at.
    size_t committableSlots = 0;
    // Since the tables were last written: slots appended from
    // uncommittedFrom (bytes) on, and free slots handed out again (their
    // sectors).
    bool appendedSinceCommit = false;
    long long uncommittedFrom = 0;
    std::pmr::set<long long> reusedSinceCommit{&slotNodes};
};

} // namespace kord
