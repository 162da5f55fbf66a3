#include "extent/CVMDKNullExtentFile.h"

#include "base/CIOError.h"
#include "extent/VMDKExtentBounds.h"
#include "format/VMDKMarker.h"

#include <algorithm>

#include <cstring>

namespace kord {

CVMDKNullExtentFile::CVMDKNullExtentFile(const zu::CURI& uri, long long startGrainIndex, long long startSector,
                                         long long grainSizeSectors, long long capacitySectors, long long sizeSectors,
                                         bool compressed, int compressionLevel, IVMDKDataProvider* fallback)
    : uri(uri), startGrainIndex(startGrainIndex), startSector(startSector), grainSizeSectors(grainSizeSectors),
      compressed(compressed),
      compressionLevel(compressionLevel), sizeBytes(std::min(capacitySectors, sizeSectors) * vmdkSectorSize),
      fallback(fallback)
{
}

void CVMDKNullExtentFile::seek(long long newPosition)
{
    checkExtentSeek(*this, "CVMDKNullExtentFile::seek", newPosition, sizeBytes);
    position = newPosition;
}

int CVMDKNullExtentFile::read(void* data, int bytes)
{
    checkExtentTransfer(*this, "null", position, bytes, sizeBytes);
    if (fallback)
        fallback->getData(diskPosition(), data, bytes);
    else
        std::memset(data, 0, static_cast<size_t>(bytes));
    position += bytes;
    return bytes;
}

void CVMDKNullExtentFile::write(const void*, int)
{
    throw zu::CError("Internal error: write method called on VMDK null extent file.", zu::String(), -1, uriProps());
}

void CVMDKNullExtentFile::writePreparedGrainData(const zu::TBuffer<unsigned char>&)
{
    throw zu::CError("Internal error: writePreparedGrainData method called on VMDK null extent file.", zu::String(), -1,
                     uriProps());
}

bool CVMDKNullExtentFile::makeGrainIndependentOfParent(long long)
{
    throw zu::CError("Internal error: makeGrainIndependentOfParent method called on VMDK null extent file.",
                     zu::String(), -1, uriProps());
}

zu::P<CVMDKDataPreparer> CVMDKNullExtentFile::createDataPreparer()
{
    return zu::newObj<CVMDKDataPreparer>(grainSizeSectors, compressed, compressionLevel);
}

void CVMDKNullExtentFile::readPreparedGrainData(zu::TBuffer<unsigned char>& out)
{
    long long grainBytes = grainSizeSectors * vmdkSectorSize;
    checkExtentWholeGrain(*this, false, position, sizeBytes, grainBytes);
    if (fallback) {
        fallback->getPreparedGrainData(diskPosition(), out, static_cast<int>(grainBytes), compressed);
    } else {
        if (!preparer) preparer = createDataPreparer();
        if (!preparedZeroGrain) {
            zu::P<zu::TBuffer<unsigned char>> zeros = zu::newObj<zu::TBuffer<unsigned char>>();
            zeros->setUsedFill(grainBytes, 0);
            preparedZeroGrain = zu::newObj<zu::TBuffer<unsigned char>>();
            zu::P<zu::TBuffer<unsigned char>> prepared = preparer->prepareGrainData(zeros, 0, preparedZeroGrain);
            if (prepared.get() != preparedZeroGrain.get()) preparedZeroGrain = prepared;
        }
        out.assign(preparedZeroGrain->getData(), preparedZeroGrain->getUsed());
        preparer->patchGrainIndexInPreparedGrainData(out, startGrainIndex + position / grainBytes);
    }
    position += grainBytes;
}

CVMDKDataPlace CVMDKNullExtentFile::locate()
{
    CVMDKDataPlace place;
    place.bytes = sizeBytes - position;
    return place;
}

bool CVMDKNullExtentFile::isGrainWritten()
{
    return fallback && fallback->isGrainWritten(diskPosition());
}

} // namespace kord
