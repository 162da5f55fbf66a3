// Hands out storage for grains that have none yet, in one sparse extent
// file: every new grain goes to the end of the grain data, and its position
// and slot size are recorded in the grain directory.
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
// behind them when the allocator is flushed. A file whose end is not the
// expected trail keeps those bytes; new grains go after them.
//
// Slots larger than their data are left as holes where they extend the
// file (they read as zeros and take no room on file systems with sparse
// files); bytes the file already had inside a slot are overwritten with
// zeros.
#pragma once

#include "base/IIOStream.h"
#include "base/TBuffer.h"
#include "grain/CVMDKGrainDirectory.h"
#include "grain/IVMDKGrainAllocator.h"

namespace kord {

class CVMDKGrainAllocator : public zu::CBase, public IVMDKGrainAllocator {
public:
    // dataEndBytes: where grain data ends when there is no trail (a
    // multiple of 512); trailPosBytes: where the trail is expected to begin.
    CVMDKGrainAllocator(zu::IIOStream* stream, int access, long long dataEndBytes, long long trailPosBytes,
                        CVMDKGrainDirectory* directory, const zu::TBuffer<unsigned char>& trail);
    ~CVMDKGrainAllocator() override;

    // Moves the allocation point to at least endBytes (rounded up to a
    // sector), the end of every slot the grain tables reference, and
    // allows allocation.
    void setReferencedEnd(long long endBytes);

    void flushChangesToStream() override;
    long long allocNewGrain(long long extentGrainIndex, const void* data, int size, int slotSizeSectors) override;
    long long allocNewGrainKeepBuffer(long long extentGrainIndex, const zu::TConstBufferSlice<unsigned char>& data,
                                      int slotSizeSectors) override;

    long long getAllocationPointBytes() const { return allocationPoint; }
    // True when the trail was found at the end of the file (or none is expected).
    bool isTrailIntact() const { return trailIntact; }

private:
    long long allocNewGrainImpl(long long extentGrainIndex, const void* data, int size,
                                const zu::TConstBufferSlice<unsigned char>* keep, int slotSizeSectors);

    zu::P<zu::IIOStream> stream;
    int access;
    zu::P<CVMDKGrainDirectory> directory;
    zu::TBuffer<unsigned char> trail;
    zu::TBuffer<unsigned char> zeros;
    long long allocationPoint;
    bool trailIntact = true;
    bool trailNeedsWrite = false;
    bool referencedEndKnown = false;
};

} // namespace kord
