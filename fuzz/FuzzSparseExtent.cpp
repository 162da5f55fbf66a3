// A sparse extent file from untrusted bytes: open it (header, footer,
// directories, slot-size directory, trail), accepting other tools' stream
// layouts, and read every grain, plainly and in prepared form. Errors are
// expected; crashes, hangs and huge allocations are not.
#include "FuzzTarget.h"

#include "base/CError.h"
#include "base/CMemoryFileSystem.h"
#include "descriptor/CVMDKDescriptor.h"
#include "extent/CVMDKSparseExtentFile.h"
#include "format/CVMDKLowLevelFileStream.h"
#include "format/VMDKEmptyLayout.h"

#include <algorithm>

namespace {

const zu::CURI& fileURI()
{
    static const zu::CURI uri("file:///fuzz/extent.vmdk");
    return uri;
}

void readEverything(kord::CVMDKSparseExtentFile& extent)
{
    std::vector<unsigned char> buffer(64 * 1024);
    long long size = extent.getSizeBytes();
    // Grains are sampled when there are many: the input is small, the
    // capacity it claims need not be.
    long long grainBytes = extent.getGrainSizeSectors() * 512;
    long long step = std::max(grainBytes, size / 256 / grainBytes * grainBytes);
    zu::TBuffer<unsigned char> prepared;
    for (long long at = 0; at < size; at += step) {
        try {
            extent.seek(at);
            long long n = std::min<long long>({static_cast<long long>(buffer.size()), size - at, grainBytes});
            extent.read(buffer.data(), static_cast<int>(n));
            if (at + grainBytes <= size) {
                extent.seek(at);
                extent.readPreparedGrainData(prepared);
            }
        } catch (const zu::CError&) {
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size > fuzzMaxInputBytes) return 0;
    zu::P<zu::CMemoryFileSystem> fs = zu::newObj<zu::CMemoryFileSystem>();
    {
        zu::P<zu::IIOStream> file = fs->openStream(fileURI(), zu::IIOStream::accessCreateNew, zu::CProps());
        if (size > 0) file->write(data, static_cast<int>(size));
        file->close();
    }
    try {
        zu::P<zu::IIOStream> stream = kord::openVMDKFileStream(fs, fileURI(), zu::IIOStream::accessRead);
        zu::P<kord::CVMDKGrainTableCache> cache = zu::newObj<kord::CVMDKGrainTableCache>(64);
        kord::CVMDKSparseExtentFile extent(stream, zu::IIOStream::accessRead, 0, -1, cache, nullptr, nullptr, nullptr,
                                           zu::TCryptBuffer<unsigned char>(), zu::TBuffer<unsigned char>(), true);
        readEverything(extent);
        extent.gatherSpaceInfo();
    } catch (const zu::CError&) {
    }
    return 0;
}

std::vector<std::vector<std::uint8_t>> fuzzSeeds()
{
    std::vector<std::vector<std::uint8_t>> seeds;
    for (bool streamOptimized : {false, true}) {
        zu::P<zu::CMemoryFileSystem> fs = zu::newObj<zu::CMemoryFileSystem>();
        zu::TBuffer<unsigned char> zeros;
        zeros.setUsedFill(4096, 0);
        kord::CVMDKDescriptor descriptor;
        descriptor.setValue("CID", "1234", false, true);
        descriptor.setCreateType(streamOptimized ? "streamOptimized" : "monolithicSparse");
        kord::createEmptyVMDKSparseExtentFile(fs, fileURI(), streamOptimized, 40 * 16, 16, zeros, &descriptor, 4,
                                              zu::TBuffer<unsigned char>());
        {
            zu::P<zu::IIOStream> stream = kord::openVMDKFileStream(fs, fileURI(), zu::IIOStream::accessReadWrite);
            zu::P<kord::CVMDKGrainTableCache> cache = zu::newObj<kord::CVMDKGrainTableCache>(64);
            zu::P<kord::CVMDKContentIDUpdater> updater =
                zu::newObj<kord::CVMDKContentIDUpdater>(fs, fileURI(), &descriptor);
            kord::CVMDKSparseExtentFile extent(stream, zu::IIOStream::accessReadWrite, 0, -1, cache, nullptr, updater,
                                               nullptr, zu::TCryptBuffer<unsigned char>(), zu::TBuffer<unsigned char>());
            std::vector<unsigned char> grain(16 * 512);
            for (int g = 0; g < 40; g += 3) {
                for (std::size_t i = 0; i < grain.size(); ++i) grain[i] = static_cast<unsigned char>((i / 7 + g) % 251);
                extent.seek(static_cast<long long>(g) * 16 * 512);
                extent.write(grain.data(), g % 2 ? 1000 : static_cast<int>(grain.size()));
            }
            extent.flushChanges();
        }
        zu::P<zu::TBuffer<unsigned char>> bytes = fs->getFileData(fileURI());
        seeds.emplace_back(bytes->getData(), bytes->getData() + bytes->getUsed());
    }
    // The stream file in other tools' layouts: the grain directory found
    // through the footer (gdOffset -1), and without slot-size directory
    // (its marker's type cleared; the first one after the grain tables).
    std::vector<std::uint8_t> footer = seeds.back();
    std::fill(footer.begin() + 56, footer.begin() + 64, 0xFF);
    seeds.push_back(footer);
    std::vector<std::uint8_t> noSlots = seeds[1];
    for (std::size_t at = 512; at + 512 <= noSlots.size(); at += 512)
        if (noSlots[at + 12] == 0x02 && noSlots[at + 13] == 0x90 && noSlots[at + 14] == 0x34 && noSlots[at + 15] == 0x18) {
            noSlots[at + 12] = 0;
            break;
        }
    seeds.push_back(noSlots);
    return seeds;
}
