#include "ConvertEndpoints.h"

#include "ToolSupport.h"

#include "disk/CVMDKDiskCreator.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace kordtool {

bool isAllZero(const unsigned char* data, long long bytes)
{
    long long i = 0;
    for (; i + 8 <= bytes; i += 8) {
        std::uint64_t word;
        std::memcpy(&word, data + i, sizeof word);
        if (word != 0) return false;
    }
    for (; i < bytes; ++i)
        if (data[i] != 0) return false;
    return true;
}

CRawSource::CRawSource(const std::string& path)
    : stream(localFileSystem()->openStream(pathToURI(path), zu::IIOStream::accessRead, zu::CProps())),
      size(stream->getLength())
{
}

bool CRawSource::read(long long position, unsigned char* buffer, long long bytes)
{
    stream->seek(position);
    stream->read(buffer, static_cast<int>(bytes));
    return true;
}

bool CDiskSource::read(long long position, unsigned char* buffer, long long bytes)
{
    // Any grain of the range written here or in the parent chain means
    // the range is read.
    long long grain = disk->getGrainSizeBytes();
    bool written = false;
    for (long long at = position - position % grain; at < position + bytes && !written; at += grain) {
        disk->seek(at);
        written = disk->isGrainWritten();
    }
    if (!written) return false;
    disk->seek(position);
    disk->read(buffer, static_cast<int>(bytes));
    return true;
}

CRawTarget::CRawTarget(zu::IIOStream& stream, long long size) : stream(stream), size(size) {}

namespace {

constexpr long long writeOutStepBytes = 32LL << 20;

} // namespace

void CRawTarget::write(long long position, const unsigned char* data, long long bytes)
{
    stream.seek(position);
    stream.write(data, static_cast<int>(bytes));
    unsyncedBytes += bytes;
    if (unsyncedBytes < writeOutStepBytes) return;
    unsyncedBytes = 0;
    if (auto* durable = zu::tryCast<zu::IDurableStream>(static_cast<zu::IBase*>(&stream))) durable->startSync();
}

void CRawTarget::finish()
{
    // Trailing ranges never written become a hole, not written zeros.
    stream.setLength(size);
}

namespace {

// The main file's title with ".kord-tmp" added, the extension kept.
zu::CURI temporaryName(const zu::CURI& uri)
{
    zu::String extension = uri.getExtension();
    return zu::CURI(uri.getParent(), uri.getTitle() + ".kord-tmp" + (extension.empty() ? zu::String() : "." + extension));
}

zu::CFileSystemError alreadyExists(const zu::CURI& uri)
{
    return zu::CFileSystemError(zu::CFileSystemError::problemAlreadyExists, "VMDK disk file already exists.",
                                zu::CProps().set("uri", uri.toString(true)));
}

} // namespace

CDiskTarget::CDiskTarget(const std::string& path, const kord::CVMDKDisk::CCreateParams& params, bool plainStream)
    : mainURI(pathToURI(path)), temporaryURI(temporaryName(mainURI)),
      split(params.createType == zu::String("twoGbMaxExtentSparse")), plainStream(plainStream)
{
    if (localFileSystem()->exists(mainURI)) throw alreadyExists(mainURI);
    // Left by a conversion that was killed.
    deleteTemporaryFiles();
    disk = kord::CVMDKDisk::create(localFileSystem(), temporaryURI, params);
    // Nothing under a temporary name needs to survive a crash: the disk is
    // synced once, when complete, and its content ID is its own already.
    disk->setSyncEnabled(false);
    disk->setContentIDUpdatesEnabled(false);
    for (int i = 0; i < static_cast<int>(disk->getExtentInfos().size()); ++i) {
        zu::CURI file = finalURI(i);
        if (file != mainURI && localFileSystem()->exists(file)) {
            discard();
            throw alreadyExists(file);
        }
    }
}

zu::CURI CDiskTarget::finalURI(int extentIndex) const
{
    return split ? kord::CVMDKDiskCreator::splitExtentURI(mainURI, extentIndex + 1) : mainURI;
}

void CDiskTarget::write(long long position, const unsigned char* data, long long bytes)
{
    disk->seek(position);
    disk->write(data, static_cast<int>(bytes));
}

void CDiskTarget::finish()
{
    if (plainStream) disk->removeSlotSizeDirectory();
    disk->syncFiles();
    // The extent lines name the files by the names they are about to get.
    std::vector<std::pair<zu::CURI, zu::CURI>> renames;
    for (int i = 0; i < static_cast<int>(disk->getExtentInfos().size()); ++i) {
        zu::CURI file = disk->getExtentURI(i).toNormalized();
        if (file != temporaryURI) renames.emplace_back(file, finalURI(i));
        disk->getExtentInfos()[static_cast<size_t>(i)]->fileName = finalURI(i).getName();
    }
    disk->storeDescriptor();
    disk = nullptr;
    for (const auto& rename : renames) localFileSystem()->renameFile(rename.first, rename.second);
    localFileSystem()->renameFile(temporaryURI, mainURI);
}

void CDiskTarget::discard()
{
    try {
        disk = nullptr;
        deleteTemporaryFiles();
    } catch (const std::exception&) {
        // The error that caused the discard is the one reported.
    }
}

void CDiskTarget::deleteTemporaryFiles() const
{
    zu::IFileSystem* fs = localFileSystem();
    fs->deleteFile(temporaryURI, true);
    for (int i = 1; fs->exists(kord::CVMDKDiskCreator::splitExtentURI(temporaryURI, i)); ++i)
        fs->deleteFile(kord::CVMDKDiskCreator::splitExtentURI(temporaryURI, i), true);
}

} // namespace kordtool
