// The parent disk of a delta disk, as the fallback data provider of the
// child's extents. The parent is found from the child's descriptor, opened
// read-only the first time data is needed, checked to be the disk the child
// was made from (its content ID), and then answers reads, grain queries and
// prepared-grain requests. Chains of any length resolve through the
// parent's own provider, up to a fixed depth; a chain that loops back to one
// of its own disks is refused.
#pragma once

#include "base/IFileSystem.h"
#include "grain/CVMDKDataPreparer.h"
#include "grain/CVMDKGrainTableCache.h"
#include "grain/IVMDKDataProvider.h"

#include <vector>

namespace kord {

class CVMDKDisk;

class CVMDKParentDiskDataProvider : public zu::CBase, public IVMDKDataProvider {
public:
    // The most disks a chain may hold, the child included.
    static constexpr int maxChainLength = 255;

    // childChain: the normalised main URIs of the child and of the disks
    // below it (the child first), for loop detection. parentDisk, when given,
    // is used as the parent (no content-ID check) instead of opening one.
    // anyVariant: the parent opens as CVMDKDisk::openAny opens disks.
    CVMDKParentDiskDataProvider(zu::IFileSystem* fileSystem, const zu::CURI& childURI, unsigned parentContentID,
                                const zu::String& parentFileNameHint, long long grainSizeSectors,
                                const zu::String& password, int compressionLevel,
                                CVMDKGrainTableCache* grainTableCache, CVMDKDisk* parentDisk,
                                const std::vector<zu::CURI>& childChain = std::vector<zu::CURI>(),
                                bool anyVariant = false);
    ~CVMDKParentDiskDataProvider() override;

    void getData(long long position, void* buffer, int bytes) override;
    bool isGrainWritten(long long position) override;
    void getPreparedGrainData(long long position, zu::TBuffer<unsigned char>& preparedData, int grainSizeBytes,
                              bool compressed) override;

    const zu::CURI& getParentURI() const { return parentURI; }
    // Opens the parent if needed (for inspection by tools).
    CVMDKDisk* getParentDisk();

private:
    void ensureParentDiskOpen();
    void fetchParentDiskSize();

    zu::P<zu::IFileSystem> fileSystem;
    zu::CURI childURI;
    unsigned expectedParentContentID;
    zu::String parentFileNameHint;
    zu::CURI parentURI;
    long long grainSizeSectors;
    zu::String password;
    int compressionLevel;
    zu::P<CVMDKGrainTableCache> grainTableCache;
    zu::P<CVMDKDisk> parentDisk;
    long long parentDiskSize = -1;
    zu::P<CVMDKDataPreparer> dataPreparer;
    zu::P<zu::TBuffer<unsigned char>> preparedZeroGrain;
    std::vector<zu::CURI> chain;
    bool anyVariant;
};

} // namespace kord
