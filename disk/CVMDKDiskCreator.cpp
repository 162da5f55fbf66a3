#include "disk/CVMDKDiskCreator.h"

#include "base/CIOError.h"
#include "base/CMTRand.h"
#include "base/Log.h"
#include "base/Threads.h"
#include "crypto/CCipher_AES256CBC.h"
#include "crypto/CDigestType_SHA256.h"
#include "format/CVMDKLowLevelFileStream.h"
#include "format/VMDKEmptyLayout.h"
#include "format/VMDKMarker.h"

#include <algorithm>
#include <climits>

namespace kord {

namespace {

const char* const where = "CVMDKDisk::create";
constexpr long long zeroBufferBytes = 64 * 1024;
// Room a text descriptor keeps for later stores in place: a renewed content
// ID, a longer parent path, and a little more.
constexpr long long descriptorFileRoomBytes = 1024 + 512;
constexpr long long geometrySectorsPerTrack = 63;

unsigned randomContentID()
{
    zu::CMutexLock lock(zu::getGlobalMutex());
    unsigned value;
    do {
        value = zu::CMTRand::getGlobal().rand32();
    } while (value == 0 || value == 0xFFFFFFFFu);
    return value;
}

long long roundUp(long long value, long long unit) { return (value + unit - 1) / unit * unit; }

std::vector<zu::String> pathComponents(const zu::String& path)
{
    std::vector<zu::String> out;
    size_t start = 0;
    while (start <= path.length()) {
        size_t slash = path.find(L'/', start);
        size_t end = slash == zu::String::npos ? path.length() : slash;
        if (end > start) out.push_back(zu::String(path.substr(start, end - start)));
        if (slash == zu::String::npos) break;
        start = slash + 1;
    }
    return out;
}

} // namespace

zu::P<CVMDKDisk> CVMDKDisk::create(zu::IFileSystem* fileSystem, const zu::CURI& uri, const CCreateParams& params)
{
    CVMDKDiskCreator creator(fileSystem, uri, params);
    return creator.create();
}

CVMDKDiskCreator::CVMDKDiskCreator(zu::IFileSystem* fileSystem, const zu::CURI& uri,
                                   const CVMDKDisk::CCreateParams& params)
    : fileSystem(fileSystem), uri(uri.toNormalized()), params(params)
{
    zeros.setUsedFill(zeroBufferBytes, 0);
}

zu::String CVMDKDiskCreator::relativeReference(const zu::CURI& fromDirectory, const zu::CURI& target)
{
    zu::CURI from = fromDirectory.toNormalized();
    zu::CURI to = target.toNormalized();
    if (from.getScheme() != to.getScheme() || from.getAuthority() != to.getAuthority() ||
        from.getScheme() != zu::String("file"))
        return to.toString(false);
    std::vector<zu::String> a = pathComponents(from.getPath());
    std::vector<zu::String> b = pathComponents(to.getPath());
    size_t common = 0;
    while (common < a.size() && common + 1 < b.size() && a[common] == b[common]) ++common;
    zu::String out;
    for (size_t i = common; i < a.size(); ++i) out += "../";
    for (size_t i = common; i < b.size(); ++i) out += (i > common ? "/" : "") + b[i];
    return out;
}

void CVMDKDiskCreator::checkParams()
{
    const zu::String& type = params.createType;
    streamOptimized = type == zu::String("streamOptimized");
    split = type == zu::String("twoGbMaxExtentSparse");
    if (!streamOptimized && !split && type != zu::String("monolithicSparse"))
        throw zu::CInvalidArgError(where, "Unsupported create type: '" + type + "'");
    const zu::String& adapter = params.adapterType;
    if (adapter != zu::String("lsilogic") && adapter != zu::String("ide") && adapter != zu::String("buslogic") &&
        adapter != zu::String("legacyESX"))
        throw zu::CInvalidArgError(where, "Unsupported adapter type: '" + adapter + "'");
    if (params.createExtentFilesOnDemand && !split)
        throw zu::CInvalidArgError(where, "extent files can only be created on demand for twoGbMaxExtentSparse disks");
    if (params.compressionLevel < -1 || params.compressionLevel > 12)
        throw zu::CInvalidArgError(where, "Invalid compression level: " + zu::toString(params.compressionLevel));
    grainSizeSectors = params.grainSizeSectors;
    capacitySectors = params.capacitySectors;
}

void CVMDKDiskCreator::checkGeometry() const
{
    if (grainSizeSectors < 1 || grainSizeSectors > vmdkMaxGrainSizeSectors)
        throw zu::CInvalidArgError(where, "Invalid grain size: " + zu::toString(grainSizeSectors) + " sectors");
    if (capacitySectors <= 0 || capacitySectors > LLONG_MAX / vmdkSectorSize - vmdkMaxGrainSizeSectors)
        throw zu::CInvalidArgError(where, "Invalid capacity: " + zu::toString(capacitySectors) + " sectors");
    // A disk that could not be opened again is refused before any file is made.
    long long perExtent = split ? CVMDKDisk::maxSplitExtentSectors / grainSizeSectors * grainSizeSectors : capacitySectors;
    if ((capacitySectors + perExtent - 1) / perExtent > CVMDKDisk::maxExtentLines)
        throw zu::CInvalidArgError(where, "Capacity needs more extent files than a disk may have: " +
                                              zu::toString(capacitySectors) + " sectors");
}

void CVMDKDiskCreator::takeParentGeometry()
{
    // Any variant may be a parent, as any variant may be opened.
    zu::P<CVMDKDisk> parent = CVMDKDisk::openAny(fileSystem, params.parentURI, zu::IIOStream::accessRead, params.password);
    parentContentID = parent->getDescriptor()->getContentID();
    if (capacitySectors == 0) capacitySectors = parent->getDiskSizeSectors();
    grainSizeSectors = parent->getGrainSizeSectors();
    if (parent->getCompressed() != streamOptimized)
        throw zu::CInvalidArgError(where, zu::String(parent->getCompressed()
                                                         ? "a delta disk of a compressed parent must be streamOptimized"
                                                         : "a delta disk of an uncompressed parent cannot be streamOptimized"),
                                   zu::CProps().set("parentURI", parent->getMainURI().toString(true)));
    parentFileNameHint = relativeReference(uri.getParent(), parent->getMainURI());
}

void CVMDKDiskCreator::buildDescriptor()
{
    descriptor = zu::newObj<CVMDKDescriptor>();
    descriptor->addGenericLine("# Disk DescriptorFile", true);
    descriptor->setVersion(1);
    descriptor->setEncodingUTF8();
    descriptor->setContentID(randomContentID());
    descriptor->setParentContentID(parentContentID);
    if (!parentFileNameHint.empty()) descriptor->setParentFileNameHint(parentFileNameHint);
    descriptor->setCreateType(params.createType);
    if (params.createExtentFilesOnDemand) descriptor->setZuCreateExtentFilesOnDemand(true);
    if (!params.password.empty()) {
        pell::CCipher_AES256CBC cipher;
        zu::TCryptBuffer<unsigned char> dataKey(cipher.getKeySize());
        zu::randData(dataKey.getData(), static_cast<int>(dataKey.getUsed()));
        zu::TBuffer<unsigned char> iv(cipher.getIVSize());
        zu::randData(iv.getData(), static_cast<int>(iv.getUsed()));
        CVMDKDisk::storeEncryptionKeys(*descriptor, dataKey, iv, params.password);
        keyHash = pell::CDigestType_SHA256::hash(dataKey.getData(), dataKey.getUsed());
    }

    descriptor->addGenericLine("", false);
    descriptor->addGenericLine("# Extent description", false);
    long long perExtent = split ? CVMDKDisk::maxSplitExtentSectors / grainSizeSectors * grainSizeSectors : capacitySectors;
    for (long long left = capacitySectors; left > 0; left -= perExtent) extentSizes.push_back(std::min(left, perExtent));
    for (size_t i = 0; i < extentSizes.size(); ++i) {
        zu::String name = split ? splitExtentURI(uri, static_cast<int>(i) + 1).getName() : uri.getName();
        descriptor->addExtentEntry(zu::newObj<CVMDKExtentInfo>("RW", extentSizes[i], "SPARSE", name, -1));
    }

    descriptor->addGenericLine("", false);
    descriptor->addGenericLine("# The Disk Data Base", false);
    descriptor->addGenericLine("#DDB", false);
    descriptor->addGenericLine("", false);
    descriptor->setValue("ddb.virtualHWVersion", "4", true, false);
    long long heads = params.adapterType == zu::String("ide") ? 16 : 255;
    descriptor->setGeometryCylinders(capacitySectors / (heads * geometrySectorsPerTrack));
    descriptor->setGeometryHeads(heads);
    descriptor->setGeometrySectors(geometrySectorsPerTrack);
    descriptor->setAdapterType(params.adapterType);
}

zu::CURI CVMDKDiskCreator::splitExtentURI(const zu::CURI& uri, int number)
{
    zu::String digits = zu::toString(number);
    while (digits.length() < 3) digits = "0" + digits;
    zu::String extension = uri.getExtension();
    return zu::CURI(uri.getParent(), uri.getTitle() + "-s" + digits + (extension.empty() ? zu::String() : "." + extension));
}

void CVMDKDiskCreator::createSplitFiles()
{
    for (size_t i = 0; i < extentSizes.size(); ++i) {
        // With files made on demand, the first is still made now: the disk
        // learns its grain geometry from it when it opens.
        if (i > 0 && params.createExtentFilesOnDemand) break;
        zu::CURI extentURI = splitExtentURI(uri, static_cast<int>(i) + 1);
        createEmptyVMDKSparseExtentFile(fileSystem, extentURI, false, extentSizes[i], grainSizeSectors, zeros, nullptr, 0,
                                        keyHash);
        createdFiles.push_back(extentURI);
    }
    descriptor->setEncodingUTF8();
    long long textBytes = static_cast<long long>(descriptor->toString().toUTF8().size());
    long long fileBytes = roundUp(textBytes + descriptorFileRoomBytes, vmdkSectorSize);
    writeVMDKFileAtomically(fileSystem, uri, false, [&](zu::IIOStream& stream) {
        descriptor->store(stream, static_cast<int>(fileBytes), zeros);
    });
    createdFiles.push_back(uri);
}

void CVMDKDiskCreator::createFiles()
{
    if (split) {
        createSplitFiles();
        return;
    }
    createEmptyVMDKSparseExtentFile(fileSystem, uri, streamOptimized, capacitySectors, grainSizeSectors, zeros, descriptor,
                                    CVMDKDisk::embeddedDescriptorSectors, keyHash);
    createdFiles.push_back(uri);
}

void CVMDKDiskCreator::deleteCreatedFiles()
{
    for (const zu::CURI& file : createdFiles) {
        try {
            fileSystem->deleteFile(file, true);
        } catch (const std::exception& e) {
            zu::logError(e, "Error deleting a file of a half-created VMDK disk. Ignoring.");
        }
    }
    createdFiles.clear();
}

zu::P<CVMDKDisk> CVMDKDiskCreator::create()
{
    checkParams();
    if (!params.parentURI.isEmpty()) takeParentGeometry();
    checkGeometry();
    buildDescriptor();
    // Also the extent files to be made later: a stale file of another disk
    // must never be taken for one of ours.
    std::vector<zu::CURI> files{uri};
    for (size_t i = 0; split && i < extentSizes.size(); ++i) files.push_back(splitExtentURI(uri, static_cast<int>(i) + 1));
    for (const zu::CURI& file : files)
        if (fileSystem->exists(file))
            throw zu::CFileSystemError(zu::CFileSystemError::problemAlreadyExists, "VMDK disk file already exists.",
                                       zu::CProps().set("uri", file.toString(true)));
    try {
        createFiles();
        // Opened as openAny opens disks, for a parent of any variant.
        return zu::P<CVMDKDisk>(new CVMDKDisk(fileSystem, uri, zu::IIOStream::accessReadWrite, params.password,
                                              params.compressionLevel, nullptr, nullptr, std::vector<zu::CURI>(), true),
                                zu::AdoptRef());
    } catch (const std::exception& e) {
        zu::logError(e, "Error creating VMDK disk ('" + uri.toString(true) + "'). Deleting its files and letting error through.");
        deleteCreatedFiles();
        throw;
    }
}

} // namespace kord
