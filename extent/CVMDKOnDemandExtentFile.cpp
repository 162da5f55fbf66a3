#include "extent/CVMDKOnDemandExtentFile.h"

#include "base/CError.h"
#include "extent/CVMDKNullExtentFile.h"
#include "extent/CVMDKSparseExtentFile.h"
#include "format/CVMDKLowLevelFileStream.h"
#include "format/VMDKEmptyLayout.h"

namespace kord {

CVMDKOnDemandExtentFile::CVMDKOnDemandExtentFile(zu::IFileSystem* fileSystem, const zu::CURI& uri, int access,
                                                 long long startGrainIndex, long long startSector,
                                                 long long grainSizeSectors, long long capacitySectors,
                                                 long long sizeSectors, bool compressed,
                                                 int compressionLevel, IVMDKDataProvider* fallback,
                                                 CVMDKGrainTableCache* grainTableCache,
                                                 CVMDKContentIDUpdater* contentIDUpdater, pell::ICipher* cipher,
                                                 const zu::TCryptBuffer<unsigned char>& key,
                                                 const zu::TBuffer<unsigned char>& iv,
                                                 const zu::TBuffer<unsigned char>& keyHash)
    : fileSystem(fileSystem), uri(uri), access(access), startGrainIndex(startGrainIndex), startSector(startSector),
      grainSizeSectors(grainSizeSectors), capacitySectors(capacitySectors), sizeSectors(sizeSectors),
      compressed(compressed), compressionLevel(compressionLevel), fallback(fallback),
      grainTableCache(grainTableCache), contentIDUpdater(contentIDUpdater), cipher(cipher), key(key), iv(iv),
      keyHash(keyHash)
{
    updateInnerFileObject(!fileSystem->exists(uri));
}

void CVMDKOnDemandExtentFile::updateInnerFileObject(bool missing)
{
    long long position = inner ? inner->getPosition() : -1;
    zu::P<IVMDKExtentFile> next;
    if (missing) {
        next = zu::newObj<CVMDKNullExtentFile>(uri, startGrainIndex, startSector, grainSizeSectors, capacitySectors,
                                               sizeSectors, compressed, compressionLevel, fallback);
    } else {
        zu::P<zu::IIOStream> stream = openVMDKFileStream(fileSystem, uri, access);
        zu::P<CVMDKSparseExtentFile> sparse = zu::newObj<CVMDKSparseExtentFile>(
            stream, access, startGrainIndex, compressionLevel, grainTableCache, fallback, contentIDUpdater, cipher, key, iv,
            startSector);
        // Also a file that someone else made since the disk was opened.
        sparse->checkMatchesDisk(sizeSectors, grainSizeSectors, compressed, throwVMDKProblem);
        next = sparse;
    }
    fileMissing = missing;
    inner = next;
    inner->setSyncEnabled(syncEnabled);
    if (position >= 0) inner->seek(position);
}

void CVMDKOnDemandExtentFile::setSyncEnabled(bool enabled)
{
    syncEnabled = enabled;
    inner->setSyncEnabled(enabled);
}

void CVMDKOnDemandExtentFile::prepareWrite()
{
    if (access != zu::IIOStream::accessReadWrite)
        throw zu::CError("Internal error: VMDK extent file is about to be changed, but it was not opened for writing.",
                         zu::String(), -1, zu::CProps().set("uri", uri.toString(true)));
    if (!fileMissing) return;
    // Made by someone else since we looked: use it as it is.
    if (!fileSystem->exists(uri)) {
        zu::TBuffer<unsigned char> zeros;
        zeros.setUsedFill(2048, 0);
        createEmptyVMDKSparseExtentFile(fileSystem, uri, compressed, sizeSectors, grainSizeSectors, zeros, nullptr, 0,
                                        keyHash);
    }
    updateInnerFileObject(false);
}

void CVMDKOnDemandExtentFile::setFallbackDataProvider(IVMDKDataProvider* provider)
{
    fallback = provider;
    inner->setFallbackDataProvider(provider);
}

void CVMDKOnDemandExtentFile::write(const void* data, int bytes)
{
    prepareWrite();
    inner->write(data, bytes);
}

void CVMDKOnDemandExtentFile::writePreparedGrainData(const zu::TBuffer<unsigned char>& preparedData)
{
    prepareWrite();
    inner->writePreparedGrainData(preparedData);
}

void CVMDKOnDemandExtentFile::writeStoredGrainData(const zu::TBuffer<unsigned char>& data)
{
    prepareWrite();
    inner->writeStoredGrainData(data);
}

bool CVMDKOnDemandExtentFile::makeGrainIndependentOfParent(long long grainIndex)
{
    prepareWrite();
    return inner->makeGrainIndependentOfParent(grainIndex);
}

} // namespace kord
