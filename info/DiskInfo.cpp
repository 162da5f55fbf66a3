#include "DiskInfo.h"

#include "base/CLocalFileSystem.h"
#include "extent/CVMDKSparseExtentFile.h"
#include "format/VMDKFileReference.h"

#include <algorithm>

namespace kordinfo {

namespace {

// A descriptor value that may be missing (disks made by other tools): null.
template <class F>
Json valueOrNull(F get)
{
    try {
        return Json(get());
    } catch (const zu::CError&) {
        return Json();
    }
}

Json spaceJson(const kord::CVMDKSpaceInfo& space)
{
    return Json{{"payloadSize", space.payloadSize},
                {"payloadSizeInFile", space.payloadSizeInFile},
                {"headerSize", space.headerSize},
                {"deadSpace", space.deadSpace}};
}

Json extentJson(kord::CVMDKDisk* disk, int index)
{
    const kord::CVMDKExtentInfo& line = *disk->getExtentInfos()[static_cast<size_t>(index)];
    const zu::CURI& uri = disk->getExtentURI(index);
    bool zero = line.type == zu::String("ZERO");
    Json extent{{"file", zero ? Json() : Json(uriToDisplay(uri))},
                {"type", line.type.toUTF8()},
                {"access", line.access.toUTF8()},
                {"sectors", line.sizeSectors}};
    if (line.offset != -1) extent["offset"] = line.offset;
    // A descriptor embedded in the disk's only sparse extent makes its own
    // file that extent, whatever the line names (a copied or renamed file).
    if (!zero && kord::vmdkFileReferenceToURI(disk->getMainURI().getParent(), line.fileName) != uri)
        extent["nameInDescriptor"] = line.fileName.toUTF8();
    zu::P<kord::IVMDKExtentFile> file = disk->openExtentForInspection(index);
    extent["writtenGrains"] = file ? file->gatherSpaceInfo()->payloadSize / disk->getGrainSizeBytes() : 0;
    // Set while a writer has changes that are not all in the file; left
    // set by a writer that did not close the extent.
    auto* sparse = zu::tryCast<kord::CVMDKSparseExtentFile>(file.get());
    extent["uncleanShutdown"] = sparse ? Json(sparse->getHeader().uncleanShutdown != 0) : Json();
    // Null for a ZERO extent and for a file that is not there (made on
    // demand and not made yet, or of a NOACCESS line).
    extent["fileSize"] = !zero && disk->getFileSystem()->exists(uri) ? Json(disk->getFileSystem()->getFileSize(uri)) : Json();
    return extent;
}

} // namespace

std::string uriToDisplay(const zu::CURI& uri)
{
    if (uri.getScheme() == zu::String("file")) return zu::CLocalFileSystem::uriToPath(uri).toUTF8();
    return uri.toString(true).toUTF8();
}

Json diskInfoJson(kord::CVMDKDisk* disk)
{
    kord::CVMDKDescriptor* descriptor = disk->getDescriptor();
    Json info;
    info["file"] = uriToDisplay(disk->getMainURI());
    info["createType"] = descriptor->getCreateType().toUTF8();
    info["virtualSize"] = disk->getDiskSizeBytes();
    info["grainSize"] = disk->getGrainSizeSectors();
    info["compression"] = disk->getCompressed() ? "deflate" : "none";
    info["encryption"] = disk->isEncrypted() ? descriptor->getZuEncryptionAlgorithm().toUTF8() : "none";
    info["contentID"] = zu::toHexString(descriptor->getContentID()).toUTF8();
    info["parentContentID"] = zu::toHexString(descriptor->getParentContentID()).toUTF8();
    info["parentFileNameHint"] = valueOrNull([&] { return descriptor->getParentFileNameHint().toUTF8(); });
    info["adapterType"] = valueOrNull([&] { return descriptor->getAdapterType().toUTF8(); });
    info["geometry"] = valueOrNull([&] {
        return Json{{"cylinders", descriptor->getGeometryCylinders()},
                    {"heads", descriptor->getGeometryHeads()},
                    {"sectors", descriptor->getGeometrySectors()}};
    });
    info["extentFilesOnDemand"] = descriptor->getZuCreateExtentFilesOnDemand();
    Json extents = Json::array();
    for (int i = 0; i < static_cast<int>(disk->getExtentInfos().size()); ++i) extents.push_back(extentJson(disk, i));
    info["extents"] = extents;
    info["dirty"] = std::any_of(extents.begin(), extents.end(),
                                [](const Json& extent) { return extent["uncleanShutdown"] == Json(true); });
    info["space"] = spaceJson(*disk->gatherSpaceInfo());
    if (kord::CVMDKDisk* parent = openParentIfPresent(disk))
        info["parent"] = diskInfoJson(parent);
    else if (isParentMissing(disk))
        info["parent"] = Json{{"file", uriToDisplay(disk->getParentURI())}, {"missing", true}};
    return info;
}

bool isParentMissing(kord::CVMDKDisk* disk)
{
    return !disk->getParentURI().isEmpty() && !disk->getFileSystem()->exists(disk->getParentURI());
}

kord::CVMDKDisk* openParentIfPresent(kord::CVMDKDisk* disk)
{
    return isParentMissing(disk) ? nullptr : disk->getParentDisk();
}

} // namespace kordinfo
