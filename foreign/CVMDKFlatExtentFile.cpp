#include "foreign/CVMDKFlatExtentFile.h"

#include "base/CIOError.h"
#include "base/Log.h"
#include "extent/VMDKExtentBounds.h"
#include "format/VMDKMarker.h"

#include <climits>

namespace kord {

CVMDKFlatExtentFile::CVMDKFlatExtentFile(zu::IIOStream* stream, int access, long long offsetSectors,
                                         long long sizeSectors, long long startGrainIndex, long long grainSizeSectors,
                                         bool compressed, int compressionLevel, CVMDKContentIDUpdater* contentIDUpdater)
    : stream(stream), access(access), offsetSectors(offsetSectors), sizeBytes(sizeSectors * vmdkSectorSize),
      startGrainIndex(startGrainIndex), grainSizeSectors(grainSizeSectors), compressed(compressed),
      compressionLevel(compressionLevel), contentIDUpdater(contentIDUpdater),
      preparer(zu::newObj<CVMDKDataPreparer>(grainSizeSectors, compressed, compressionLevel))
{
    long long fileSize = stream->getLength();
    // The line's size was checked by the disk; the offset comes from the
    // same untrusted line.
    if (offsetSectors < 0 || offsetSectors > (LLONG_MAX - sizeBytes) / vmdkSectorSize ||
        offsetSectors * vmdkSectorSize + sizeBytes > fileSize)
        throw zu::CIOError(zu::CIOError::codeInvalidData, "VMDK flat extent file is shorter than its extent line.",
                           uriProps()
                               .set("offsetSectors", offsetSectors)
                               .set("extentSize", sizeSectors)
                               .set("fileSize", fileSize));
}

CVMDKFlatExtentFile::~CVMDKFlatExtentFile()
{
    try {
        flushChanges();
    } catch (const std::exception& e) {
        zu::onExceptionInDestructorIgnored("kord::CVMDKFlatExtentFile", e);
    }
}

void CVMDKFlatExtentFile::seek(long long newPosition)
{
    checkExtentSeek(*this, "CVMDKFlatExtentFile::seek", newPosition, sizeBytes);
    position = newPosition;
}

int CVMDKFlatExtentFile::read(void* data, int bytes)
{
    checkExtentTransfer(*this, "flat", position, bytes, sizeBytes);
    stream->seek(offsetSectors * vmdkSectorSize + position);
    stream->read(data, bytes);
    position += bytes;
    return bytes;
}

void CVMDKFlatExtentFile::beforeChange()
{
    if (access != zu::IIOStream::accessReadWrite)
        throw zu::CError("Internal error: VMDK flat extent file is about to be changed, but it was not opened for "
                         "writing.", zu::String(), -1, uriProps());
    if (contentIDUpdater && contentIDUpdater->isRenewalPending())
        contentIDUpdater->onDiskAboutToChange(stream->getURI(), stream, syncEnabled);
    changed = true;
}

void CVMDKFlatExtentFile::write(const void* data, int bytes)
{
    checkExtentTransfer(*this, nullptr, position, bytes, sizeBytes);
    beforeChange();
    stream->seek(offsetSectors * vmdkSectorSize + position);
    stream->write(data, bytes);
    position += bytes;
}

void CVMDKFlatExtentFile::flushChanges()
{
    if (!changed) return;
    stream->flush();
    if (syncEnabled) zu::syncStream(*stream);
    changed = false;
}

zu::P<CVMDKDataPreparer> CVMDKFlatExtentFile::createDataPreparer()
{
    return zu::newObj<CVMDKDataPreparer>(grainSizeSectors, compressed, compressionLevel);
}

void CVMDKFlatExtentFile::readPreparedGrainData(zu::TBuffer<unsigned char>& preparedData)
{
    long long grainBytes = grainSizeSectors * vmdkSectorSize;
    checkExtentWholeGrain(*this, false, position, sizeBytes, grainBytes);
    long long grainIndex = startGrainIndex + position / grainBytes;
    if (!compressed) {
        // The prepared form is the plain bytes.
        preparedData.setUsed(grainBytes);
        read(preparedData.getData(), static_cast<int>(grainBytes));
        return;
    }
    plainGrain.setUsed(grainBytes);
    read(plainGrain.getData(), static_cast<int>(grainBytes));
    preparer->prepareGrainData(plainGrain.getData(), grainBytes, grainIndex, preparedData);
}

void CVMDKFlatExtentFile::writePreparedGrainData(const zu::TBuffer<unsigned char>& preparedData)
{
    long long grainBytes = grainSizeSectors * vmdkSectorSize;
    checkExtentWholeGrain(*this, true, position, sizeBytes, grainBytes);
    if (!compressed && preparedData.getUsed() == grainBytes) {
        write(preparedData.getData(), static_cast<int>(grainBytes));
        return;
    }
    if (!compressed && preparedData.getUsed() > grainBytes)
        throw zu::CInvalidArgError("CVMDKFlatExtentFile::writePreparedGrainData",
                                   "prepared data is bigger than a prepared grain can be",
                                   uriProps().set("preparedDataSize", preparedData.getUsed()));
    plainGrain.setUsed(grainBytes);
    preparer->unprepareGrainData(preparedData.getData(), preparedData.getUsed(), plainGrain.getData());
    write(plainGrain.getData(), static_cast<int>(grainBytes));
}

bool CVMDKFlatExtentFile::makeGrainIndependentOfParent(long long)
{
    return false;
}

zu::P<CVMDKSpaceInfo> CVMDKFlatExtentFile::gatherSpaceInfo()
{
    zu::P<CVMDKSpaceInfo> info = zu::newObj<CVMDKSpaceInfo>();
    info->payloadSize = sizeBytes;
    info->payloadSizeInFile = sizeBytes;
    return info;
}

CVMDKDataPlace CVMDKFlatExtentFile::locate()
{
    CVMDKDataPlace place;
    place.kind = CVMDKDataPlace::kindData;
    place.bytes = sizeBytes - position;
    place.file = stream->getURI();
    place.offsetBytes = offsetSectors * vmdkSectorSize + position;
    return place;
}

} // namespace kord
