// Helpers for tests that need real sparse extent files: making them in the
// library's layouts (with an embedded descriptor, optionally encrypted), a
// fixture that opens one as CVMDKSparseExtentFile with everything an extent
// needs, reading fields back from the file, exact error checks and
// capturing log lines.
#pragma once

#include "common/TestUtil.h"

#include "base/Endian.h"
#include "base/Log.h"
#include "crypto/CCipher_AES256CBC.h"
#include "crypto/CDigestType_SHA256.h"
#include "descriptor/CVMDKContentIDUpdater.h"
#include "descriptor/CVMDKDescriptor.h"
#include "extent/CVMDKSparseExtentFile.h"
#include "format/CVMDKLowLevelFileStream.h"
#include "format/VMDKEmptyLayout.h"

#include <algorithm>
#include <string>
#include <vector>

namespace kordtest {

using Bytes = std::vector<unsigned char>;
constexpr int rw = zu::IIOStream::accessReadWrite;

// Header field offsets (the header is sector 0; a stream-optimized footer
// is the same 512 bytes one sector after the footer marker).
namespace hdr {
constexpr long long version = 4, flags = 8, capacity = 12, grainSize = 20, descriptorOffset = 28,
                    descriptorSize = 36, numGTEsPerGT = 44, rgdOffset = 48, gdOffset = 56, overHead = 64,
                    uncleanShutdown = 72, compressAlgorithm = 77, encryptAlgorithm = 79;
}

constexpr long long descriptorSectors = 20;

// The variants of sparse extent the library writes.
struct ExtentKind {
    bool streamOptimized;
    bool encrypted;
    const char* name;
};
inline constexpr ExtentKind plainKind{false, false, "plain"}, compressedKind{true, false, "compressed"},
    encryptedKind{false, true, "encrypted"};
inline constexpr ExtentKind allExtentKinds[] = {plainKind, compressedKind, encryptedKind, {true, true, "both"}};

inline zu::TBuffer<unsigned char> toBuffer(const Bytes& bytes)
{
    return zu::TBuffer<unsigned char>(bytes.data(), static_cast<long long>(bytes.size()));
}

inline zu::TCryptBuffer<unsigned char> testKey()
{
    return zu::TCryptBuffer<unsigned char>(pattern(32, 0x4B).data(), 32);
}
inline zu::TBuffer<unsigned char> testIV() { return toBuffer(pattern(16, 0xA0)); }

// Creates an empty extent in the kind's layout, with an embedded descriptor
// of a one-extent disk naming the file itself.
inline void createExtent(zu::IFileSystem* fs, const zu::CURI& uri, const ExtentKind& kind, long long grainCount,
                         long long grainSectors)
{
    const std::string text = "# Disk DescriptorFile\nversion=1\nCID=1234abcd\nparentCID=ffffffff\ncreateType=\"" +
                             std::string(kind.streamOptimized ? "streamOptimized" : "monolithicSparse") +
                             "\"\n\n# Extent description\nRW " + std::to_string(grainCount * grainSectors) +
                             " SPARSE \"extent.vmdk\"\n\n# The Disk Data Base\n#DDB\n\n"
                             "ddb.virtualHWVersion = \"4\"\nddb.adapterType = \"lsilogic\"\n";
    zu::TBuffer<unsigned char> keyHash, zeros;
    if (kind.encrypted) keyHash = pell::CDigestType_SHA256::hash(testKey().getData(), 32);
    zeros.setUsedFill(65536, 0);
    kord::createEmptyVMDKSparseExtentFile(fs, uri, kind.streamOptimized, grainCount * grainSectors, grainSectors, zeros,
                                          zu::newObj<kord::CVMDKDescriptor>(toBuffer(Bytes(text.begin(), text.end()))),
                                          descriptorSectors, keyHash);
}

inline Bytes readAt(kord::IVMDKExtentFile& extent, long long position, long long bytes)
{
    Bytes out(static_cast<size_t>(bytes));
    extent.seek(position);
    extent.read(out.data(), static_cast<int>(bytes));
    return out;
}

inline void writeAt(kord::IVMDKExtentFile& extent, long long position, const Bytes& data)
{
    extent.seek(position);
    extent.write(data.data(), static_cast<int>(data.size()));
}

inline long long grainPos(kord::CVMDKSparseExtentFile& extent, long long grain, long long* slot = nullptr)
{
    long long pos = 0, slotSectors = 0;
    extent.getGrainInfo(grain, pos, slotSectors);
    if (slot) *slot = slotSectors;
    return pos;
}

// Fixture for cases on one extent file, "extent.vmdk", on both file systems.
class ExtentFileTest : public FileSystemTest {
protected:
    zu::CURI file() const { return uri("extent.vmdk"); }
    Bytes image() const { return readAll(fs, file()); }
    void create(const ExtentKind& kind, long long grains, long long grainSectors = 16)
    {
        fs->deleteFile(file(), true);
        createExtent(fs, file(), kind, grains, grainSectors);
    }
    // Opens the file with what the members below hold. Null members are made
    // afresh: a cache of 1024 tables and a content-ID updater on the
    // extent's own embedded descriptor.
    zu::P<kord::CVMDKSparseExtentFile> open(const ExtentKind& kind = plainKind, int access = rw)
    {
        return zu::newObj<kord::CVMDKSparseExtentFile>(
            kord::openVMDKFileStream(fs, file(), access), access, startGrainIndex, 1,
            cache ? cache : zu::newObj<kord::CVMDKGrainTableCache>(kord::CVMDKGrainTableCache::defaultLimit), nullptr,
            updater ? updater
                    : zu::newObj<kord::CVMDKContentIDUpdater>(fs, file(), zu::newObj<kord::CVMDKDescriptor>()),
            kind.encrypted ? zu::newObj<pell::CCipher_AES256CBC>() : nullptr,
            kind.encrypted ? testKey() : zu::TCryptBuffer<unsigned char>(),
            kind.encrypted ? testIV() : zu::TBuffer<unsigned char>());
    }

    long long startGrainIndex = 0;
    zu::P<kord::CVMDKGrainTableCache> cache;
    zu::P<kord::CVMDKContentIDUpdater> updater;
};

// Data that deflate shrinks to about a third: random letters of a
// four-letter alphabet.
inline Bytes compressible(long long bytes, unsigned seed)
{
    Bytes out = pattern(static_cast<size_t>(bytes), seed);
    for (unsigned char& b : out) b = static_cast<unsigned char>("disk"[b % 4]);
    return out;
}

inline std::uint32_t fileLE32(const Bytes& file, long long offset) { return zu::loadLE32(&file.at(offset)); }
inline std::uint64_t fileLE64(const Bytes& file, long long offset) { return zu::loadLE64(&file.at(offset)); }
inline Bytes slice(const Bytes& file, long long offset, long long bytes)
{
    return Bytes(file.begin() + offset, file.begin() + offset + bytes);
}

// Collects the log lines written while it exists.
struct LogCapture {
    LogCapture() = default;
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    ~LogCapture() { zu::setLogSink(previous); }
    bool contains(const std::string& text) const
    {
        return std::any_of(lines.begin(), lines.end(), [&](const std::string& l) { return l.find(text) != l.npos; });
    }

    std::vector<std::string> lines;
    zu::LogSink previous = zu::setLogSink([this](zu::LogLevel, const zu::String& l) { lines.push_back(l.toUTF8()); });
};

} // namespace kordtest
