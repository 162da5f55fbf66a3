#include "ConvertEndpoints.h"

#include "ToolSupport.h"

#include "descriptor/CVMDKDescriptorAccessor.h"
#include "format/CVMDKSparseExtentHeader.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <vector>

namespace kordtool {

namespace {

// Text descriptors are small and name their create type near the start.
constexpr long long descriptorProbeBytes = 4096;

} // namespace

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

bool isVMDKFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::string start(descriptorProbeBytes, '\0');
    in.read(&start[0], descriptorProbeBytes);
    start.resize(static_cast<size_t>(in.gcount()));
    if (start.size() >= 4) {
        std::uint32_t magic = static_cast<std::uint32_t>(static_cast<unsigned char>(start[0])) |
                              static_cast<std::uint32_t>(static_cast<unsigned char>(start[1])) << 8 |
                              static_cast<std::uint32_t>(static_cast<unsigned char>(start[2])) << 16 |
                              static_cast<std::uint32_t>(static_cast<unsigned char>(start[3])) << 24;
        if (magic == kord::CVMDKSparseExtentHeader::magicStandard ||
            magic == kord::CVMDKSparseExtentHeader::magicExtended)
            return true;
    }
    in.seekg(0, std::ios::end);
    long long size = static_cast<long long>(in.tellg());
    return size <= kord::CVMDKDescriptorAccessor::maxDescriptorBytes && start.find("createType") != std::string::npos;
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

CRawTarget::CRawTarget(const std::string& path, long long size)
    : uri(pathToURI(path)), size(size),
      stream(localFileSystem()->openStream(uri, zu::IIOStream::accessCreateNew, zu::CProps()))
{
}

void CRawTarget::write(long long position, const unsigned char* data, long long bytes)
{
    stream->seek(position);
    stream->write(data, static_cast<int>(bytes));
}

void CRawTarget::finish()
{
    // Trailing ranges never written become a hole, not written zeros.
    stream->setLength(size);
    stream->flush();
    stream->close();
}

void CRawTarget::discard()
{
    try {
        stream = nullptr;
        localFileSystem()->deleteFile(uri, true);
    } catch (const std::exception&) {
        // The error that caused the discard is the one reported.
    }
}

CDiskTarget::CDiskTarget(const std::string& path, const kord::CVMDKDisk::CCreateParams& params, bool plainStream)
    : disk(kord::CVMDKDisk::create(localFileSystem(), pathToURI(path), params)), plainStream(plainStream)
{
}

void CDiskTarget::write(long long position, const unsigned char* data, long long bytes)
{
    disk->seek(position);
    disk->write(data, static_cast<int>(bytes));
}

void CDiskTarget::finish()
{
    if (plainStream)
        disk->removeSlotSizeDirectory();
    else
        disk->flushChanges();
}

void CDiskTarget::discard()
{
    try {
        std::vector<zu::CURI> files{disk->getMainURI()};
        for (int i = 0; i < static_cast<int>(disk->getExtentInfos().size()); ++i)
            files.push_back(disk->getExtentURI(i));
        disk = nullptr;
        for (const zu::CURI& file : files) localFileSystem()->deleteFile(file, true);
    } catch (const std::exception&) {
        // The error that caused the discard is the one reported.
    }
}

} // namespace kordtool
