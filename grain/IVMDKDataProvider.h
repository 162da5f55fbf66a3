// Where the data of grains that an extent has not written comes from: the
// parent disk of a delta disk.
#pragma once

#include "base/CBase.h"
#include "base/TBuffer.h"

namespace kord {

class IVMDKDataProvider : public virtual zu::IBase {
public:
    // Fills `length` bytes with the data at that byte position of the
    // virtual disk (zeros where the provider has none).
    virtual void getData(long long position, void* buffer, int length) = 0;
    // The grain at that byte position in prepared form (as stored, before
    // encryption), for copying it unchanged; grainSizeBytes and compressed
    // describe the asking extent, which must match the provider's.
    virtual void getPreparedGrainData(long long position, zu::TBuffer<unsigned char>& preparedData,
                                      int grainSizeBytes, bool compressed) = 0;
    // Whether the provider's disk chain has written the grain at that byte position.
    virtual bool isGrainWritten(long long position) = 0;
};

} // namespace kord
