// Turns a grain's plain data into its prepared form (as stored in the
// extent file, before encryption) and back.
//
// Uncompressed extents: both forms are the same bytes. Compressed extents:
//   off  size  field
//     0     8  grain LBA   first virtual sector of the grain (signed)
//     8     4  size        bytes of deflate data that follow (signed)
//    12  size  deflate data (zlib format)
//     …        zero padding to the next multiple of 512
// A preparer is made per extent and reused grain after grain: the caller's
// auxiliary buffer carries the result, so preparing allocates nothing in
// steady state.
#pragma once

#include "base/TBuffer.h"
#include "grain/CVMDKCompressor.h"

namespace kord {

class CVMDKDataPreparer : public zu::CBase {
public:
    static constexpr int grainHeaderBytes = 12;

    CVMDKDataPreparer(long long grainSizeSectors, bool compressed, int compressionLevel);

    bool doesAnything() const { return compressor != nullptr; }
    long long getGrainSizeBytes() const { return grainSizeBytes; }
    // The largest prepared grain in sectors.
    long long getMaxPreparedSectors() const { return maxPreparedSectors; }
    CVMDKCompressor* getCompressor() const { return compressor; }

    // The prepared form of up to one grain of data: the source itself when
    // there is nothing to do, else auxBuffer filled with it.
    zu::P<zu::TBuffer<unsigned char>> prepareGrainData(zu::TBuffer<unsigned char>* source, long long grainIndex,
                                                       zu::TBuffer<unsigned char>* auxBuffer);
    // The same for raw memory, into auxBuffer (compressed extents only).
    void prepareGrainData(const unsigned char* source, long long sourceBytes, long long grainIndex,
                          zu::TBuffer<unsigned char>& auxBuffer);
    // The plain grain into target (sized to one grain; a short stream is
    // zero-filled). Decompression errors pass on.
    void unprepareGrainData(zu::TBuffer<unsigned char>* prepared, zu::TBuffer<unsigned char>* target);
    // The same into raw memory of one grain. Uncompressed data shorter
    // than a grain is zero-filled too; the caller refuses longer data.
    void unprepareGrainData(const unsigned char* prepared, long long preparedBytes, unsigned char* target);
    // Rewrites the grain LBA of a prepared grain copied to another position.
    void patchGrainIndexInPreparedGrainData(zu::TBuffer<unsigned char>& prepared, long long grainIndex) const;

private:
    long long grainSizeBytes;
    zu::P<CVMDKCompressor> compressor;
    long long maxCompressedBytes = -1;
    long long maxPreparedSectors;
};

} // namespace kord
