#include "grain/CVMDKDataPreparer.h"

#include "base/CIOError.h"
#include "base/Endian.h"
#include "format/VMDKMarker.h"

#include <cstring>

namespace kord {

CVMDKDataPreparer::CVMDKDataPreparer(long long grainSizeSectors, bool compressed, int compressionLevel)
    : grainSizeBytes(grainSizeSectors * vmdkSectorSize), maxPreparedSectors(grainSizeSectors)
{
    if (compressed) {
        compressor = zu::newObj<CVMDKCompressor>(compressionLevel);
        maxCompressedBytes = compressor->getCompressedSizeUpperBound(static_cast<int>(grainSizeBytes));
        maxPreparedSectors = (maxCompressedBytes + grainHeaderBytes + vmdkSectorSize - 1) / vmdkSectorSize;
    }
}

zu::P<zu::TBuffer<unsigned char>> CVMDKDataPreparer::prepareGrainData(zu::TBuffer<unsigned char>* source,
                                                                      long long grainIndex,
                                                                      zu::TBuffer<unsigned char>* auxBuffer)
{
    const char* where = "CVMDKDataPreparer::prepareGrainData";
    if (!source) throw zu::CInvalidArgError(where, "pSourceBuffer must not be NULL");
    if (!auxBuffer) throw zu::CInvalidArgError(where, "pAuxBuffer must not be NULL");
    if (source->getUsed() > grainSizeBytes)
        throw zu::CInvalidArgError(where, "source buffer is bigger than grain size (" + zu::toString(source->getUsed()) + ").");
    if (!compressor) return source;
    prepareGrainData(source->getData(), source->getUsed(), grainIndex, *auxBuffer);
    return auxBuffer;
}

void CVMDKDataPreparer::prepareGrainData(const unsigned char* source, long long sourceBytes, long long grainIndex,
                                         zu::TBuffer<unsigned char>& auxBuffer)
{
    auxBuffer.ensureAllocated(maxPreparedSectors * vmdkSectorSize);
    unsigned char* out = auxBuffer.getData();
    int count = compressor->compressSingleStep(source, static_cast<int>(sourceBytes), out + grainHeaderBytes,
                                               static_cast<int>(maxCompressedBytes));
    if (count < 0)
        throw zu::CError("Internal error: grain data could not be compressed within its bound.", zu::String(), -1,
                         zu::CProps().set("grainIndex", grainIndex).set("bound", maxCompressedBytes));
    zu::storeLE64(out, static_cast<std::uint64_t>(grainIndex * (grainSizeBytes / vmdkSectorSize)));
    zu::storeLE32(out + 8, static_cast<std::uint32_t>(count));
    long long used = grainHeaderBytes + count;
    long long padded = (used + vmdkSectorSize - 1) / vmdkSectorSize * vmdkSectorSize;
    std::memset(out + used, 0, static_cast<size_t>(padded - used));
    auxBuffer.setUsed(padded);
}

void CVMDKDataPreparer::unprepareGrainData(zu::TBuffer<unsigned char>* prepared, zu::TBuffer<unsigned char>* target)
{
    if (!compressor) {
        if (target != prepared) target->assign(prepared->getData(), prepared->getUsed());
        return;
    }
    target->setUsed(grainSizeBytes);
    unprepareGrainData(prepared->getData(), prepared->getUsed(), target->getData());
}

void CVMDKDataPreparer::unprepareGrainData(const unsigned char* prepared, long long preparedBytes,
                                           unsigned char* target)
{
    if (!compressor) {
        std::memcpy(target, prepared, static_cast<size_t>(preparedBytes));
        std::memset(target + preparedBytes, 0, static_cast<size_t>(grainSizeBytes - preparedBytes));
        return;
    }
    long long deflateBytes = preparedBytes - grainHeaderBytes;
    if (deflateBytes < 0)
        throw zu::CIOError(zu::CIOError::codeInvalidData, "Prepared VMDK grain data is too short.",
                           zu::CProps().set("preparedSize", preparedBytes));
    int produced = compressor->decompressSingleStep(prepared + grainHeaderBytes, static_cast<int>(deflateBytes), target,
                                                    static_cast<int>(grainSizeBytes));
    std::memset(target + produced, 0, static_cast<size_t>(grainSizeBytes - produced));
}

void CVMDKDataPreparer::patchGrainIndexInPreparedGrainData(zu::TBuffer<unsigned char>& prepared,
                                                           long long grainIndex) const
{
    if (!compressor) return;
    if (prepared.getUsed() < 8)
        throw zu::CInvalidArgError("CVMDKDataPreparer::patchGrainIndexInPreparedGrainData", "prepared data too short");
    zu::storeLE64(prepared.getData(), static_cast<std::uint64_t>(grainIndex * (grainSizeBytes / vmdkSectorSize)));
}

} // namespace kord
