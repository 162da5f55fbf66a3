#include "CompareCommand.h"

#include "ChainMap.h"
#include "ConvertEndpoints.h"
#include "ImageFormat.h"
#include "Passwords.h"
#include "Progress.h"
#include "ToolSupport.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <iostream>
#include <memory>

namespace kordtool {

namespace {

constexpr long long chunkBytes = 1024 * 1024;

struct CCompareOptions {
    bool progress = false;
    bool strict = false;
    std::string first;
    std::string second;
    CImageFormat firstFormat;
    CImageFormat secondFormat;
    CPasswordSource passwords;
};

std::unique_ptr<IConvertSource> openSource(const std::string& path, const CImageFormat& format,
                                           CPasswordSource& passwords)
{
    if (!format.isVMDK(path)) return std::make_unique<CRawSource>(path);
    return std::make_unique<CDiskSource>(openDisk(path, zu::IIOStream::accessRead, passwords, format));
}

// The first offset where the two buffers differ, else -1.
long long firstDifference(const unsigned char* a, const unsigned char* b, long long bytes)
{
    if (std::memcmp(a, b, static_cast<size_t>(bytes)) == 0) return -1;
    return std::mismatch(a, a + bytes, b).first - a;
}

long long firstNonZero(const unsigned char* data, long long bytes)
{
    if (isAllZero(data, bytes)) return -1;
    return std::find_if(data, data + bytes, [](unsigned char c) { return c != 0; }) - data;
}

// One side of the comparison, with the map of a disk's chain: ranges that
// neither side holds are skipped without reading.
struct CSide {
    explicit CSide(std::unique_ptr<IConvertSource> opened) : source(std::move(opened))
    {
        if (auto* disk = dynamic_cast<CDiskSource*>(source.get())) chain = std::make_unique<CChainMap>(disk->getDisk());
    }

    // The bytes from `position` on that no disk of the chain holds (0 for
    // a raw image, and where a missing parent would supply them).
    long long unheldBytes(long long position) const
    {
        if (position >= source->getSizeBytes()) return LLONG_MAX;
        if (!chain) return 0;
        CChainMap::CEntry entry = chain->entryAt(position);
        return entry.present || entry.missing ? 0 : entry.length;
    }

    std::unique_ptr<IConvertSource> source;
    std::unique_ptr<CChainMap> chain;
};

// Compares [0, size) of both sides, reading only what either holds. The
// sides may be shorter than size: past its end a side reads as zeros.
// Returns the first differing offset, or -1.
long long compareContents(CSide& sideA, CSide& sideB, long long size, CProgress& progress)
{
    IConvertSource& a = *sideA.source;
    IConvertSource& b = *sideB.source;
    zu::TBuffer<unsigned char> bufferA(chunkBytes);
    zu::TBuffer<unsigned char> bufferB(chunkBytes);
    auto readInto = [](IConvertSource& source, long long position, long long bytes, unsigned char* buffer) {
        long long inSource = std::clamp(source.getSizeBytes() - position, 0LL, bytes);
        return inSource > 0 && source.read(position, buffer, inSource) ? inSource : 0;
    };
    for (long long position = 0; position < size;) {
        progress.update(position, size);
        long long unheld = std::min(sideA.unheldBytes(position), sideB.unheldBytes(position));
        if (unheld > 0) {
            position += std::min(unheld, size - position);
            continue;
        }
        long long bytes = std::min(chunkBytes, size - position);
        long long readA = readInto(a, position, bytes, bufferA.getData());
        long long readB = readInto(b, position, bytes, bufferB.getData());
        // What a source did not read is zeros.
        std::memset(bufferA.getData() + readA, 0, static_cast<size_t>(bytes - readA));
        std::memset(bufferB.getData() + readB, 0, static_cast<size_t>(bytes - readB));
        long long at = readA == 0 && readB == 0 ? -1
                       : readA == 0             ? firstNonZero(bufferB.getData(), bytes)
                       : readB == 0             ? firstNonZero(bufferA.getData(), bytes)
                                                : firstDifference(bufferA.getData(), bufferB.getData(), bytes);
        if (at >= 0) return position + at;
        position += bytes;
    }
    progress.update(size, size);
    return -1;
}

int runCompare(CCompareOptions& options)
{
    CSide a(openSource(options.first, options.firstFormat, options.passwords));
    CSide b(openSource(options.second, options.secondFormat, options.passwords));
    long long sizeA = a.source->getSizeBytes();
    long long sizeB = b.source->getSizeBytes();
    if (options.strict && sizeA != sizeB) {
        std::cout << options.first << " and " << options.second << " differ in size: " << sizeA << " and " << sizeB
                  << " bytes\n";
        return exitCompareDifferent;
    }
    CProgress progress(options.progress, "compare");
    long long at = compareContents(a, b, std::max(sizeA, sizeB), progress);
    progress.finish();
    if (at < 0) {
        std::cout << options.first << " and " << options.second << " are identical\n";
        return exitSuccess;
    }
    std::cout << options.first << " and " << options.second << " differ at offset " << at << "\n";
    return exitCompareDifferent;
}

} // namespace

void addCompareCommand(CLI::App& app, int& exitCode)
{
    auto options = std::make_shared<CCompareOptions>();
    CLI::App* command = app.add_subcommand(
        "compare", "Compare the contents of two disks or raw images; exit status 0 identical, 1 different, 2 error");
    command->add_flag("-p,--progress", options->progress, "Show progress on standard error");
    command->add_flag("-s,--strict", options->strict,
                      "Sizes must match too (else the longer one's extra bytes must be zeros)");
    command->add_option("A", options->first, "A disk's main file or a raw image")->required();
    command->add_option("B", options->second, "A disk's main file or a raw image")->required();
    options->firstFormat.addOption(command, {"raw", "vmdk"});
    options->secondFormat.addOption(command, {"raw", "vmdk"}, "-F,--second-format");
    options->passwords.addOptions(command);
    command->callback([options, &exitCode] { exitCode = runCompare(*options); });
}

} // namespace kordtool
