// Makes new disks: lays out the extent files and the descriptor of a
// monolithicSparse, twoGbMaxExtentSparse or streamOptimized disk, plain or
// encrypted, on its own or as a delta disk of a parent.
#pragma once

#include "disk/CVMDKDisk.h"

#include <vector>

namespace kord {

class CVMDKDiskCreator {
public:
    CVMDKDiskCreator(zu::IFileSystem* fileSystem, const zu::CURI& uri, const CVMDKDisk::CCreateParams& params);

    // Creates the files and opens the new disk read-write; on failure
    // deletes every file it made and passes the error on.
    zu::P<CVMDKDisk> create();

    // The reference by which a descriptor in folder `fromDirectory` names
    // `target`: relative ("../base/parent.vmdk") where both are local files,
    // else the target's absolute form.
    static zu::String relativeReference(const zu::CURI& fromDirectory, const zu::CURI& target);
    // The file of extent `number` (from 1) of a split disk whose main file is `mainURI`.
    static zu::CURI splitExtentURI(const zu::CURI& mainURI, int number);

private:
    void checkParams();
    void checkGeometry() const;
    void takeParentGeometry();
    void buildDescriptor();
    void createFiles();
    void createSplitFiles();
    void deleteCreatedFiles();

    zu::P<zu::IFileSystem> fileSystem;
    zu::CURI uri;
    CVMDKDisk::CCreateParams params;
    bool streamOptimized = false;
    bool split = false;
    long long capacitySectors = 0;
    long long grainSizeSectors = 0;
    unsigned parentContentID = 0xFFFFFFFFu;
    zu::String parentFileNameHint;
    zu::P<CVMDKDescriptor> descriptor;
    zu::TBuffer<unsigned char> keyHash;
    zu::TBuffer<unsigned char> zeros;
    std::vector<long long> extentSizes;
    std::vector<zu::CURI> createdFiles;
};

} // namespace kord
