// What a disk holds for each extent line of its descriptor: an extent file
// read and written as a byte stream of the extent's size, plus whole-grain
// access in prepared form. Implemented by sparse, null and on-demand extents.
#pragma once

#include "base/CBase.h"
#include "base/CURI.h"
#include "base/TBuffer.h"
#include "extent/CVMDKSpaceInfo.h"
#include "grain/CVMDKDataPlace.h"
#include "grain/CVMDKDataPreparer.h"
#include "grain/IVMDKDataProvider.h"

namespace kord {

class IVMDKExtentFile : public virtual zu::IBase {
public:
    // The provider of data for grains this extent has not written (the parent disk).
    virtual void setFallbackDataProvider(IVMDKDataProvider* provider) = 0;
    // Index, in the whole disk, of the extent's first grain.
    virtual long long getStartGrainIndex() const = 0;
    virtual long long getGrainSizeSectors() const = 0;
    virtual bool getCompressed() const = 0;
    virtual zu::CURI getURI() const = 0;
    // Byte position within the extent, 0 .. extent size.
    virtual void seek(long long position) = 0;
    virtual long long getPosition() const = 0;
    virtual int read(void* data, int bytes) = 0;
    virtual void write(const void* data, int bytes) = 0;
    // Writes cached data and metadata to the file, durably in a crash-safe
    // order (see CVMDKSparseExtentFile).
    virtual void flushChanges() = 0;
    // Off: changes are written in the same order but nothing is synced.
    virtual void setSyncEnabled(bool enabled) = 0;
    virtual zu::P<CVMDKDataPreparer> createDataPreparer() = 0;
    // One whole grain in prepared form, at a grain boundary; advances by one grain.
    virtual void writePreparedGrainData(const zu::TBuffer<unsigned char>& preparedData) = 0;
    virtual void readPreparedGrainData(zu::TBuffer<unsigned char>& preparedData) = 0;
    // The same in stored form, for threads that encrypt and decrypt beside
    // the disk's (CVMDKGrain::readStoredGrainData and writeStoredGrainData).
    // An extent without encryption stores grains in prepared form.
    virtual bool readStoredGrainData(zu::TBuffer<unsigned char>& data)
    {
        readPreparedGrainData(data);
        return false;
    }
    virtual void writeStoredGrainData(const zu::TBuffer<unsigned char>& data) { writePreparedGrainData(data); }
    // Copies the parent's data of the grain (index within the extent) into
    // this extent when it has none of its own; false when there is no
    // parent to copy from.
    virtual bool makeGrainIndependentOfParent(long long grainIndex) = 0;
    // Whether the grain at the position is written here or in the parent chain.
    virtual bool isGrainWritten() = 0;
    // Whether the grain at the position is written in this extent itself.
    virtual bool isGrainWrittenAndIndependentOfParent() = 0;
    virtual zu::P<CVMDKSpaceInfo> gatherSpaceInfo() = 0;
    // Where the bytes from the position on lie in this extent (not its
    // fallback), for at least one byte and at most to the end of the grain
    // or the extent. Reads at most a grain table; the position does not change.
    virtual CVMDKDataPlace locate() = 0;
};

} // namespace kord
