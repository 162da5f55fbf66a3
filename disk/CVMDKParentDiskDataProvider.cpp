#include "disk/CVMDKParentDiskDataProvider.h"

#include "base/CIOError.h"
#include "base/Log.h"
#include "disk/CVMDKDisk.h"
#include "format/VMDKFileReference.h"
#include "format/VMDKMarker.h"

#include <algorithm>
#include <cstring>

namespace kord {

CVMDKParentDiskDataProvider::CVMDKParentDiskDataProvider(
    zu::IFileSystem* fileSystem, const zu::CURI& childURI, unsigned parentContentID,
    const zu::String& parentFileNameHint, long long grainSizeSectors, const zu::String& password,
    int compressionLevel, CVMDKGrainTableCache* grainTableCache, CVMDKDisk* parentDisk,
    const std::vector<zu::CURI>& childChain, bool anyVariant)
    : fileSystem(fileSystem), childURI(childURI.toNormalized()), expectedParentContentID(parentContentID),
      parentFileNameHint(parentFileNameHint),
      parentURI(vmdkFileReferenceToURI(this->childURI.getParent(), parentFileNameHint)),
      grainSizeSectors(grainSizeSectors), password(password), compressionLevel(compressionLevel),
      grainTableCache(grainTableCache), chain(childChain), anyVariant(anyVariant)
{
    if (chain.empty()) chain.push_back(this->childURI);
    if (parentDisk) {
        this->parentDisk = parentDisk;
        fetchParentDiskSize();
    }
}

CVMDKParentDiskDataProvider::~CVMDKParentDiskDataProvider() = default;

void CVMDKParentDiskDataProvider::fetchParentDiskSize()
{
    parentDiskSize = parentDisk ? parentDisk->getDiskSizeBytes() : -1;
}

CVMDKDisk* CVMDKParentDiskDataProvider::getParentDisk()
{
    ensureParentDiskOpen();
    return parentDisk;
}

void CVMDKParentDiskDataProvider::ensureParentDiskOpen()
{
    if (parentDisk) return;
    zu::CProps uris = zu::CProps().set("childURI", childURI.toString(true)).set("parentURI", parentURI.toString(true));
    // Each disk of a chain is opened by the one below it: a loop would open
    // disks without end, and a chain without bound would exhaust the stack.
    if (std::find(chain.begin(), chain.end(), parentURI.toNormalized()) != chain.end())
        throw zu::CIOError(zu::CIOError::codeInvalidData, "VMDK parent chain loops back to one of its own disks.", uris);
    if (chain.size() >= static_cast<size_t>(maxChainLength))
        throw zu::CIOError(zu::CIOError::codeInvalidData, "VMDK parent chain is too long.",
                           zu::CProps(uris).set("maxChainLength", maxChainLength));
    zu::P<CVMDKDisk> disk;
    try {
        disk = zu::P<CVMDKDisk>(new CVMDKDisk(fileSystem, parentURI, zu::IIOStream::accessRead, password,
                                              compressionLevel, grainTableCache, nullptr, chain, anyVariant),
                                zu::AdoptRef());
    } catch (const std::exception& e) {
        zu::logError(e, "Error while opening VMDK parent disk (parent URI: '" + parentURI.toString(true) +
                            "', child URI: '" + childURI.toString(true) + "')");
        throw;
    }
    unsigned actual = disk->getDescriptor()->getContentID();
    if (actual != expectedParentContentID)
        throw zu::CError("VMDK parent disk has changed, but a child disk depended on it.", zu::String(), -1,
                         zu::CProps(uris)
                             .set("actualContentID", zu::toHexString(actual))
                             .set("expectedContentID", zu::toHexString(expectedParentContentID)));
    parentDisk = disk;
    fetchParentDiskSize();
}

void CVMDKParentDiskDataProvider::getData(long long position, void* buffer, int bytes)
{
    ensureParentDiskOpen();
    auto* out = static_cast<unsigned char*>(buffer);
    if (position >= parentDiskSize) {
        std::memset(out, 0, static_cast<size_t>(bytes));
        return;
    }
    parentDisk->seek(position);
    long long fromParent = std::min<long long>(bytes, parentDiskSize - position);
    parentDisk->read(out, static_cast<int>(fromParent));
    // A parent smaller than the child reads as zeros past its end.
    if (fromParent < bytes) std::memset(out + fromParent, 0, static_cast<size_t>(bytes - fromParent));
}

bool CVMDKParentDiskDataProvider::isGrainWritten(long long position)
{
    ensureParentDiskOpen();
    // A child grain that does not begin on a grain boundary of the parent
    // (its extent does not) covers two of the parent's grains.
    long long end = std::min(parentDiskSize, position + grainSizeSectors * vmdkSectorSize);
    long long parentGrainBytes = parentDisk->getGrainSizeBytes();
    for (long long at = position; at < end; at = (at / parentGrainBytes + 1) * parentGrainBytes) {
        parentDisk->seek(at);
        if (parentDisk->isGrainWritten()) return true;
    }
    return false;
}

void CVMDKParentDiskDataProvider::getPreparedGrainData(long long position, zu::TBuffer<unsigned char>& preparedData,
                                                       int grainSizeBytes, bool compressed)
{
    ensureParentDiskOpen();
    if (grainSizeBytes != parentDisk->getGrainSizeBytes() || compressed != parentDisk->getCompressed())
        throw zu::CError("Parent disk is incompatible with diff disk.", zu::String(), -1,
                         zu::CProps()
                             .set("actualCompressed", parentDisk->getCompressed())
                             .set("expectedCompressed", compressed)
                             .set("actualGrainSize", parentDisk->getGrainSizeBytes())
                             .set("expectedGrainSize", grainSizeBytes)
                             .set("childURI", childURI.toString(true))
                             .set("parentURI", parentURI.toString(true)));
    // A last grain that the parent holds only in part, or one that lies
    // across two of the parent's grains, is passed as plain data prepared
    // here, like the grains past the parent's end.
    if (position + grainSizeBytes <= parentDiskSize && position % grainSizeBytes == 0) {
        parentDisk->seek(position);
        parentDisk->readPreparedGrainData(preparedData);
        return;
    }
    if (!dataPreparer) dataPreparer = parentDisk->createDataPreparer();
    long long grainIndex = position / grainSizeBytes;
    if (position >= parentDiskSize && preparedZeroGrain) {
        preparedData.assign(preparedZeroGrain->getData(), preparedZeroGrain->getUsed());
        dataPreparer->patchGrainIndexInPreparedGrainData(preparedData, grainIndex);
        return;
    }
    zu::P<zu::TBuffer<unsigned char>> plain = zu::newObj<zu::TBuffer<unsigned char>>();
    plain->setUsedFill(grainSizeBytes, 0);
    if (position < parentDiskSize) getData(position, plain->getData(), grainSizeBytes);
    zu::P<zu::TBuffer<unsigned char>> aux = zu::newObj<zu::TBuffer<unsigned char>>();
    zu::P<zu::TBuffer<unsigned char>> prepared = dataPreparer->prepareGrainData(plain, grainIndex, aux);
    // Past the parent's end every grain is the same zero grain but for its index.
    if (position >= parentDiskSize) preparedZeroGrain = prepared;
    preparedData.assign(prepared->getData(), prepared->getUsed());
}

} // namespace kord
