// Helpers for tests that need real sparse extent files: making them in the
// library's layouts (with an embedded descriptor, optionally encrypted),
// opening them as CVMDKSparseExtentFile with everything an extent needs,
// reading header fields back from the file and capturing log lines.
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

#include <string>
#include <vector>

namespace kordtest {

using Bytes = std::vector<unsigned char>;

// Header field offsets (the header is sector 0; a stream-optimized footer
// is the same 512 bytes one sector after the footer marker).
namespace hdr {
constexpr long long version = 4, flags = 8, capacity = 12, grainSize = 20, descriptorOffset = 28,
                    descriptorSize = 36, numGTEsPerGT = 44, rgdOffset = 48, gdOffset = 56, overHead = 64,
                    uncleanShutdown = 72, compressAlgorithm = 77;
}

constexpr long long descriptorSectors = 20;

// The variants of sparse extent the library writes.
struct ExtentKind {
    bool streamOptimized;
    bool encrypted;
    const char* name;
};

inline const std::vector<ExtentKind>& allExtentKinds()
{
    static const std::vector<ExtentKind> kinds = {{false, false, "plain"},
                                                  {true, false, "compressed"},
                                                  {false, true, "encrypted"},
                                                  {true, true, "encrypted compressed"}};
    return kinds;
}

inline zu::TBuffer<unsigned char> zeroBuffer(long long bytes = 65536)
{
    zu::TBuffer<unsigned char> zeros;
    zeros.setUsedFill(bytes, 0);
    return zeros;
}

inline zu::TCryptBuffer<unsigned char> testKey()
{
    zu::TCryptBuffer<unsigned char> key(32);
    for (int i = 0; i < 32; ++i) key[i] = static_cast<unsigned char>(7 * i + 1);
    return key;
}

inline zu::TBuffer<unsigned char> testIV()
{
    zu::TBuffer<unsigned char> iv(16);
    for (int i = 0; i < 16; ++i) iv[i] = static_cast<unsigned char>(0xA0 + i);
    return iv;
}

inline zu::P<kord::CVMDKDescriptor> descriptorFromText(const std::string& text)
{
    zu::TBuffer<unsigned char> bytes(reinterpret_cast<const unsigned char*>(text.data()),
                                     static_cast<long long>(text.size()));
    return zu::newObj<kord::CVMDKDescriptor>(bytes);
}

// A one-extent disk's descriptor naming the extent file itself.
inline zu::P<kord::CVMDKDescriptor> selfDescriptor(const std::string& createType, long long sectors,
                                                   const std::string& fileName)
{
    return descriptorFromText("# Disk DescriptorFile\nversion=1\nCID=1234abcd\nparentCID=ffffffff\ncreateType=\"" +
                              createType + "\"\n\n# Extent description\nRW " + std::to_string(sectors) +
                              " SPARSE \"" + fileName + "\"\n\n# The Disk Data Base\n#DDB\n\n"
                              "ddb.virtualHWVersion = \"4\"\nddb.adapterType = \"lsilogic\"\n");
}

// Creates an empty extent with an embedded descriptor in the kind's layout.
inline void createExtent(zu::IFileSystem* fs, const zu::CURI& uri, const ExtentKind& kind, long long grainCount,
                         long long grainSectors)
{
    zu::TBuffer<unsigned char> keyHash;
    if (kind.encrypted) {
        zu::TCryptBuffer<unsigned char> key = testKey();
        keyHash = pell::CDigestType_SHA256::hash(key.getData(), key.getUsed());
    }
    zu::P<kord::CVMDKDescriptor> descriptor = selfDescriptor(
        kind.streamOptimized ? "streamOptimized" : "monolithicSparse", grainCount * grainSectors, "extent.vmdk");
    kord::createEmptyVMDKSparseExtentFile(fs, uri, kind.streamOptimized, grainCount, grainSectors, zeroBuffer(),
                                          descriptor, descriptorSectors, keyHash);
}

// What an extent is opened with. Null members are made by open(): a cache of
// 1024 tables and (withUpdater) a content-ID updater on the extent's own
// embedded descriptor.
struct ExtentSetup {
    bool encrypted = false;
    int access = zu::IIOStream::accessReadWrite;
    long long startGrainIndex = 0;
    int level = 1;
    bool withUpdater = true;
    zu::P<kord::CVMDKGrainTableCache> cache;
    zu::P<kord::IVMDKDataProvider> provider;
    zu::P<kord::CVMDKContentIDUpdater> updater;

    zu::P<kord::CVMDKSparseExtentFile> open(zu::IFileSystem* fs, const zu::CURI& uri)
    {
        zu::P<zu::IIOStream> stream = kord::openVMDKFileStream(fs, uri, access);
        if (!cache) cache = zu::newObj<kord::CVMDKGrainTableCache>(kord::CVMDKGrainTableCache::defaultLimit);
        if (withUpdater && !updater)
            updater = zu::newObj<kord::CVMDKContentIDUpdater>(fs, uri, zu::newObj<kord::CVMDKDescriptor>());
        zu::P<pell::ICipher> cipher;
        zu::TCryptBuffer<unsigned char> key;
        zu::TBuffer<unsigned char> iv;
        if (encrypted) {
            cipher = zu::newObj<pell::CCipher_AES256CBC>();
            key = testKey();
            iv = testIV();
        }
        return zu::newObj<kord::CVMDKSparseExtentFile>(stream, access, startGrainIndex, level, cache, provider,
                                                       updater, cipher, key, iv);
    }
};

// Data that deflate shrinks to roughly a third: words from a small
// vocabulary in an order that depends on the seed.
inline Bytes compressible(long long bytes, unsigned seed)
{
    static const char* const words[] = {"grain ", "table ", "sector ", "extent ", "marker ", "disk ", "0x1F ", "\n"};
    Bytes out;
    out.reserve(static_cast<size_t>(bytes));
    unsigned state = seed * 2654435761u + 1;
    while (static_cast<long long>(out.size()) < bytes) {
        state = state * 1103515245u + 12345u;
        for (const char* w = words[(state >> 16) % 8]; *w && static_cast<long long>(out.size()) < bytes; ++w)
            out.push_back(static_cast<unsigned char>(*w));
    }
    return out;
}

inline std::uint32_t fileLE32(const Bytes& file, long long offset) { return zu::loadLE32(&file.at(offset)); }
inline std::uint64_t fileLE64(const Bytes& file, long long offset) { return zu::loadLE64(&file.at(offset)); }
inline Bytes slice(const Bytes& file, long long offset, long long bytes)
{
    return Bytes(file.begin() + offset, file.begin() + offset + bytes);
}

// Collects the log lines written while it exists.
class LogCapture {
public:
    LogCapture()
    {
        previous = zu::setLogSink([this](zu::LogLevel, const zu::String& line) { lines.push_back(line.toUTF8()); });
    }
    ~LogCapture() { zu::setLogSink(previous); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    bool contains(const std::string& text) const
    {
        for (const std::string& line : lines)
            if (line.find(text) != std::string::npos) return true;
        return false;
    }
    std::string all() const
    {
        std::string out;
        for (const std::string& line : lines) out += line + "\n";
        return out;
    }

    std::vector<std::string> lines;

private:
    zu::LogSink previous;
};

} // namespace kordtest
