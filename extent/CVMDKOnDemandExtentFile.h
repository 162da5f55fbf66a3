// An extent whose file is created only when the disk first writes to it.
// While the file is missing it reads like a null extent (parent data or
// zeros); the first change creates the file empty (in the extent's layout,
// without an embedded descriptor) and from then on every call goes to the
// sparse extent on it.
#pragma once

#include "base/IFileSystem.h"
#include "crypto/ICipher.h"
#include "descriptor/CVMDKContentIDUpdater.h"
#include "extent/IVMDKExtentFile.h"
#include "grain/CVMDKGrainTableCache.h"

namespace kord {

class CVMDKOnDemandExtentFile : public zu::CBase, public IVMDKExtentFile {
public:
    // sizeSectors, the extent line's size from startSector of the disk on,
    // becomes the new file's capacity; capacitySectors (a whole number of
    // grains, at least sizeSectors) is handed to the null extent. keyHash is
    // the disk key's hash, written into the new file's header of an
    // encrypted disk.
    CVMDKOnDemandExtentFile(zu::IFileSystem* fileSystem, const zu::CURI& uri, int access, long long startGrainIndex,
                            long long startSector, long long grainSizeSectors, long long capacitySectors,
                            long long sizeSectors,
                            bool compressed, int compressionLevel, IVMDKDataProvider* fallback,
                            CVMDKGrainTableCache* grainTableCache, CVMDKContentIDUpdater* contentIDUpdater,
                            pell::ICipher* cipher, const zu::TCryptBuffer<unsigned char>& key,
                            const zu::TBuffer<unsigned char>& iv, const zu::TBuffer<unsigned char>& keyHash);

    void setFallbackDataProvider(IVMDKDataProvider* provider) override;
    long long getStartGrainIndex() const override { return startGrainIndex; }
    long long getGrainSizeSectors() const override { return grainSizeSectors; }
    bool getCompressed() const override { return compressed; }
    zu::CURI getURI() const override { return uri; }
    void seek(long long position) override { inner->seek(position); }
    long long getPosition() const override { return inner->getPosition(); }
    int read(void* data, int bytes) override { return inner->read(data, bytes); }
    void write(const void* data, int bytes) override;
    void flushChanges() override { inner->flushChanges(); }
    void setSyncEnabled(bool enabled) override;
    zu::P<CVMDKDataPreparer> createDataPreparer() override { return inner->createDataPreparer(); }
    void writePreparedGrainData(const zu::TBuffer<unsigned char>& preparedData) override;
    void readPreparedGrainData(zu::TBuffer<unsigned char>& preparedData) override
    {
        inner->readPreparedGrainData(preparedData);
    }
    bool readStoredGrainData(zu::TBuffer<unsigned char>& data) override { return inner->readStoredGrainData(data); }
    void writeStoredGrainData(const zu::TBuffer<unsigned char>& data) override;
    bool makeGrainIndependentOfParent(long long grainIndex) override;
    bool isGrainWritten() override { return inner->isGrainWritten(); }
    bool isGrainWrittenAndIndependentOfParent() override { return inner->isGrainWrittenAndIndependentOfParent(); }
    zu::P<CVMDKSpaceInfo> gatherSpaceInfo() override { return inner->gatherSpaceInfo(); }
    CVMDKDataPlace locate() override { return inner->locate(); }

    bool isFileMissing() const { return fileMissing; }
    // The extent object now in use (a null extent while the file is missing).
    IVMDKExtentFile* getInner() const { return inner; }

private:
    void updateInnerFileObject(bool missing);
    void prepareWrite();

    zu::P<zu::IFileSystem> fileSystem;
    zu::CURI uri;
    int access;
    long long startGrainIndex;
    long long startSector;
    long long grainSizeSectors;
    long long capacitySectors;
    long long sizeSectors;
    bool compressed;
    int compressionLevel;
    zu::P<IVMDKDataProvider> fallback;
    zu::P<CVMDKGrainTableCache> grainTableCache;
    zu::P<CVMDKContentIDUpdater> contentIDUpdater;
    zu::P<pell::ICipher> cipher;
    zu::TCryptBuffer<unsigned char> key;
    zu::TBuffer<unsigned char> iv;
    zu::TBuffer<unsigned char> keyHash;
    bool fileMissing = true;
    bool syncEnabled = true;
    zu::P<IVMDKExtentFile> inner;
};

} // namespace kord
