// Hands out file space for grains that have none yet.
#pragma once

#include "base/CBase.h"
#include "base/TBuffer.h"

namespace kord {

class IVMDKGrainAllocator : public virtual zu::IBase {
public:
    // Writes pending allocation state (the trail of stream-optimized files).
    virtual void flushChangesToStream() = 0;
    // Places a new grain's prepared (and encrypted) data in a slot of
    // slotSizeSectors, records it for the extent grain index, and returns
    // the slot's position in sectors.
    virtual long long allocNewGrain(long long extentGrainIndex, const void* data, int size, int slotSizeSectors) = 0;
    // The same, letting the stream keep a reference to the buffer instead of copying it.
    virtual long long allocNewGrainKeepBuffer(long long extentGrainIndex,
                                              const zu::TConstBufferSlice<unsigned char>& data,
                                              int slotSizeSectors) = 0;
};

} // namespace kord
