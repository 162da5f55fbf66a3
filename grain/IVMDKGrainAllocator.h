// Hands out file space for grains that have none yet, and takes back the
// space of grains that moved.
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
    // Whether no durable grain table can point at the slot: it was handed
    // out since the tables last became durable. Such a slot may be
    // rewritten in place even where a torn write would destroy the grain.
    virtual bool isSlotUncommitted(long long posSectors) const = 0;
    // The grain left this slot for another; the slot is handed out again
    // once no durable grain table can point at it any more.
    virtual void releaseSlot(long long posSectors, long long slotSizeSectors) = 0;
};

} // namespace kord
