#include "disk/CVMDKChecker.h"

#include "base/CIOError.h"
#include "base/Endian.h"
#include "crypto/CCipher_AES256CBC.h"
#include "disk/CVMDKParentDiskDataProvider.h"
#include "format/CVMDKLowLevelFileStream.h"
#include "format/VMDKMarker.h"
#include "grain/CVMDKDataPreparer.h"

#include <algorithm>

namespace kord {

namespace {

long long roundUp(long long value, long long unit) { return (value + unit - 1) / unit * unit; }

// Corrupt (5) and unsupported (6) files are what a check reports; every
// other failure stops the check.
bool isRefusal(const zu::CIOError& error)
{
    return error.getCode() == zu::CIOError::codeInvalidData || error.getCode() == zu::CIOError::codeUnsupportedVersion;
}

} // namespace

struct CVMDKChecker::CExtentContext {
    CVMDKSparseExtentFile* extent;
    zu::IIOStream* stream;
    zu::CURI uri;
    long long fileSize;
    long long grainSizeSectors;
    long long grainBytes;
    long long startGrainIndex;
    bool compressed;
    bool encrypted;
    // The disk's size, for progress reports.
    long long diskBytes;
};

CVMDKChecker::CVMDKChecker(zu::IFileSystem* fileSystem, const zu::CURI& uri, const zu::String& password)
    : fileSystem(fileSystem), mainURI(uri.toNormalized()), password(password)
{
}

const char* CVMDKChecker::getKindName(Kind kind)
{
    switch (kind) {
    case kindRefused: return "refused";
    case kindDirectoriesDisagree: return "directoriesDisagree";
    case kindTablesOverlap: return "tablesOverlap";
    case kindGrainInMetadata: return "grainInMetadata";
    case kindGrainPastEnd: return "grainPastEnd";
    case kindGrainsOverlap: return "grainsOverlap";
    case kindBadGrainHeader: return "badGrainHeader";
    case kindSlotTooSmall: return "slotTooSmall";
    case kindDamagedTrail: return "damagedTrail";
    case kindCapacityTooSmall: return "capacityTooSmall";
    case kindUncleanShutdown: return "uncleanShutdown";
    case kindParentChanged: return "parentChanged";
    }
    return "unknown";
}

zu::P<CVMDKSparseExtentFile> CVMDKChecker::openExtentForInspection(CVMDKDisk* disk, int index)
{
    zu::CURI uri = disk->getExtentURI(index).toNormalized();
    zu::IFileSystem* fs = disk->getFileSystem();
    if (disk->getDescriptor()->getZuCreateExtentFilesOnDemand() && !fs->exists(uri)) return nullptr;
    zu::P<zu::IIOStream> stream = openVMDKFileStream(fs, uri, zu::IIOStream::accessRead);
    return zu::newObj<CVMDKSparseExtentFile>(stream, zu::IIOStream::accessRead, disk->getExtentStartGrainIndex(index),
                                             disk->getCompressionLevel(), disk->getGrainTableCache(), nullptr, nullptr,
                                             disk->getCipher(), disk->getEncryptionKey(), disk->getEncryptionIV());
}

std::vector<CVMDKChecker::CFinding> CVMDKChecker::check()
{
    findings.clear();
    std::set<zu::CURI> visited;
    zu::P<CVMDKDisk> disk = openDisk(mainURI);
    while (disk && !full()) {
        visited.insert(disk->getMainURI());
        checkDisk(disk);
        zu::CURI parentURI = disk->getParentURI().toNormalized();
        if (parentURI.isEmpty() || full()) break;
        zu::CProps uris = zu::CProps()
                              .set("childURI", disk->getMainURI().toString(true))
                              .set("parentURI", parentURI.toString(true));
        if (visited.count(parentURI)) {
            addFinding(kindRefused, disk->getMainURI(), "VMDK parent chain loops back to one of its own disks.", uris);
            break;
        }
        if (visited.size() >= static_cast<size_t>(CVMDKParentDiskDataProvider::maxChainLength)) {
            addFinding(kindRefused, disk->getMainURI(), "VMDK parent chain is too long.",
                       uris.set("maxChainLength", CVMDKParentDiskDataProvider::maxChainLength));
            break;
        }
        disk = openParent(disk);
    }
    if (full())
        addFinding(kindRefused, mainURI, "Too many problems in VMDK disk; the check stopped listing them.",
                   zu::CProps().set("maxFindings", static_cast<long long>(maxFindings)));
    return findings;
}

zu::P<CVMDKDisk> CVMDKChecker::openDisk(const zu::CURI& uri)
{
    try {
        return zu::newObj<CVMDKDisk>(fileSystem, uri, zu::IIOStream::accessRead, password, -1, nullptr, nullptr);
    } catch (const zu::CIOError& e) {
        if (!isRefusal(e)) throw;
        addRefusal(e, uri);
        return nullptr;
    }
}

zu::P<CVMDKDisk> CVMDKChecker::openParent(CVMDKDisk* child)
{
    zu::P<CVMDKDisk> parent = openDisk(child->getParentURI());
    if (!parent) return nullptr;
    unsigned expected = child->getDescriptor()->getParentContentID();
    unsigned actual = parent->getDescriptor()->getContentID();
    if (actual != expected)
        addFinding(kindParentChanged, child->getMainURI(), "VMDK parent disk has changed, but a child disk depended on it.",
                   zu::CProps()
                       .set("parentURI", parent->getMainURI().toString(true))
                       .set("actualContentID", zu::toHexString(actual))
                       .set("expectedContentID", zu::toHexString(expected)));
    return parent;
}

void CVMDKChecker::addFinding(Kind kind, const zu::CURI& uri, const zu::String& message, const zu::CProps& props)
{
    findings.push_back(CFinding{kind, uri, message, props});
}

void CVMDKChecker::addRefusal(const zu::CIOError& error, const zu::CURI& fallbackURI)
{
    addFinding(kindRefused, fallbackURI, error.getMessage(), error.getProps());
}

void CVMDKChecker::checkDisk(CVMDKDisk* disk)
{
    int count = static_cast<int>(disk->getExtentInfos().size());
    for (int i = 0; i < count && !full(); ++i) checkExtent(disk, i);
}

void CVMDKChecker::checkExtent(CVMDKDisk* disk, int index)
{
    zu::P<CVMDKSparseExtentFile> extent;
    try {
        extent = openExtentForInspection(disk, index);
    } catch (const zu::CIOError& e) {
        if (!isRefusal(e)) throw;
        addRefusal(e, disk->getExtentURI(index));
    }
    if (!extent) return;
    CExtentContext context{extent,
                           extent->getStream(),
                           extent->getURI(),
                           extent->getStream()->getLength(),
                           extent->getGrainSizeSectors(),
                           extent->getGrainSizeSectors() * vmdkSectorSize,
                           extent->getStartGrainIndex(),
                           extent->getCompressed(),
                           disk->isEncrypted(),
                           disk->getDiskSizeBytes()};
    checkHeader(context, disk->getExtentInfos()[static_cast<size_t>(index)]->sizeSectors);
    checkDirectories(context);
    checkGrains(context);
    checkGrainOverlaps(context);
}

void CVMDKChecker::checkHeader(CExtentContext& context, long long lineSectors)
{
    const CVMDKSparseExtentHeader& header = context.extent->getHeader();
    if (header.uncleanShutdown != 0)
        addFinding(kindUncleanShutdown, context.uri, "VMDK extent file was not closed cleanly.",
                   zu::CProps().set("uncleanShutdown", static_cast<int>(header.uncleanShutdown)));
    if (header.capacity < lineSectors)
        addFinding(kindCapacityTooSmall, context.uri, "VMDK extent file is smaller than its extent line.",
                   zu::CProps().set("capacity", header.capacity).set("extentSize", lineSectors));
    if (context.compressed && !context.extent->getGrainAllocator()->isTrailIntact())
        addFinding(kindDamagedTrail, context.uri,
                   "VMDK stream-optimized file does not end with its footer and end-of-stream marker.",
                   zu::CProps().set("fileSize", context.fileSize));
}

// Both directories are checked by the library to lie in the file; here
// they must also name separate tables with equal contents.
void CVMDKChecker::checkDirectories(CExtentContext& context)
{
    CVMDKGrainDirectory* directory = context.extent->getGrainDirectory();
    const zu::TBuffer<unsigned int>& entries = directory->getEntries();
    const zu::TBuffer<unsigned int>& redundant = directory->getRedundantEntries();
    long long tableSectors = (static_cast<long long>(directory->getGrainTableEntryCount()) * 4 + vmdkSectorSize - 1) /
                             vmdkSectorSize;
    // Position and table number; the redundant directory's numbers are
    // offset by the table count.
    long long tableCount = entries.getUsed();
    std::vector<std::pair<long long, long long>> tables;
    tables.reserve(static_cast<size_t>(tableCount + redundant.getUsed()));
    for (long long i = 0; i < tableCount; ++i) tables.emplace_back(entries[i], i);
    for (long long i = 0; i < redundant.getUsed(); ++i) tables.emplace_back(redundant[i], tableCount + i);
    std::sort(tables.begin(), tables.end());
    for (size_t k = 0; k + 1 < tables.size() && !full(); ++k) {
        const auto& a = tables[k];
        const auto& b = tables[k + 1];
        if (a.first + tableSectors <= b.first) continue;
        bool acrossDirectories = (a.second < tableCount) != (b.second < tableCount);
        zu::CProps props = zu::CProps()
                               .set("tableIndex", a.second % std::max(1LL, tableCount))
                               .set("otherTableIndex", b.second % std::max(1LL, tableCount))
                               .set("posSectors", a.first)
                               .set("otherPosSectors", b.first);
        if (acrossDirectories)
            addFinding(kindDirectoriesDisagree, context.uri,
                       "VMDK grain directory and redundant grain directory name the same grain table.", props);
        else
            addFinding(kindTablesOverlap, context.uri, "VMDK grain tables overlap.", props);
    }
    for (long long t = 0; t < redundant.getUsed() && !full(); ++t) compareTableWithCopy(context, t, redundant[t]);
}

void CVMDKChecker::compareTableWithCopy(CExtentContext& context, long long tableIndex, long long redundantPosSectors)
{
    CVMDKGrainDirectory* directory = context.extent->getGrainDirectory();
    int entryCount = directory->getGrainTableEntryCount();
    zu::P<CVMDKGrainTable> table = directory->getGrainTable(tableIndex);
    CVMDKGrainTable copy(context.stream, zu::IIOStream::accessRead, context.grainSizeSectors, redundantPosSectors, 0, 0,
                         entryCount);
    long long differing = 0;
    long long first = -1;
    long long firstPos = 0;
    long long firstCopyPos = 0;
    for (int i = 0; i < entryCount; ++i) {
        long long pos = 0, slot = 0, copyPos = 0, copySlot = 0;
        table->getGrainInfo(i, pos, slot);
        copy.getGrainInfo(i, copyPos, copySlot);
        if (pos == copyPos) continue;
        if (differing++ == 0) {
            first = i;
            firstPos = pos;
            firstCopyPos = copyPos;
        }
    }
    if (differing > 0)
        addFinding(kindDirectoriesDisagree, context.uri, "VMDK grain table and its redundant copy disagree.",
                   zu::CProps()
                       .set("tableIndex", tableIndex)
                       .set("grainIndex", tableIndex * entryCount + first)
                       .set("posSectors", firstPos)
                       .set("redundantPosSectors", firstCopyPos)
                       .set("differingEntries", differing));
}

void CVMDKChecker::checkGrains(CExtentContext& context)
{
    CVMDKGrainDirectory* directory = context.extent->getGrainDirectory();
    long long grains = directory->getGrainCount();
    long long perTable = directory->getGrainTableEntryCount();
    placements.clear();
    for (long long t = 0; t < directory->getGrainTableCount() && !full(); ++t) {
        zu::P<CVMDKGrainTable> table = directory->getGrainTable(t);
        long long inTable = std::min(perTable, grains - t * perTable);
        for (long long i = 0; i < inTable && !full(); ++i) {
            long long pos = 0, slot = 0;
            table->getGrainInfo(i, pos, slot);
            if (pos != 0) checkGrain(context, t * perTable + i, pos, slot);
        }
        if (progress)
            progress(std::min(context.diskBytes, (context.startGrainIndex + t * perTable + inTable) * context.grainBytes),
                     context.diskBytes);
    }
}

void CVMDKChecker::checkGrain(CExtentContext& context, long long grainIndex, long long posSectors, long long slotSectors)
{
    zu::CProps props = zu::CProps().set("grainIndex", grainIndex).set("posSectors", posSectors);
    long long grainAreaStart = context.extent->getGrainAreaStartSectors();
    if (posSectors < grainAreaStart) {
        addFinding(kindGrainInMetadata, context.uri, "VMDK grain table entry points into the metadata.",
                   props.set("grainAreaStart", grainAreaStart));
        return;
    }
    long long dataBytes = context.compressed ? checkCompressedGrain(context, grainIndex, posSectors) : context.grainBytes;
    if (dataBytes < 0) return;
    props.set("slotSizeSectors", slotSectors);
    if (posSectors * vmdkSectorSize + dataBytes > context.fileSize) {
        addFinding(kindGrainPastEnd, context.uri, "VMDK grain table entry points past the end of the extent file.",
                   props.set("dataBytes", dataBytes).set("fileSize", context.fileSize));
        return;
    }
    if (slotSectors * vmdkSectorSize < dataBytes)
        addFinding(kindSlotTooSmall, context.uri, "VMDK grain slot is smaller than the grain's data.",
                   props.set("dataBytes", dataBytes));
    placements.push_back(CPlacement{static_cast<std::uint32_t>(posSectors), static_cast<std::uint32_t>(slotSectors)});
}

// Reads the compressed grain's header (layout in CVMDKDataPreparer.h) and
// returns the bytes the grain takes in the file, or -1 when there is
// nothing more to check.
long long CVMDKChecker::checkCompressedGrain(CExtentContext& context, long long grainIndex, long long posSectors)
{
    const long long headerBytes = CVMDKDataPreparer::grainHeaderBytes;
    long long position = posSectors * vmdkSectorSize;
    zu::CProps props = zu::CProps().set("grainIndex", grainIndex).set("posSectors", posSectors);
    if (position + headerBytes > context.fileSize) {
        addFinding(kindGrainPastEnd, context.uri, "VMDK grain table entry points past the end of the extent file.",
                   props.set("fileSize", context.fileSize));
        return -1;
    }
    unsigned char header[CVMDKDataPreparer::grainHeaderBytes];
    context.stream->seek(position);
    context.stream->read(header, sizeof header);
    long long lba = static_cast<long long>(zu::loadLE64(header));
    long long size = static_cast<std::int32_t>(zu::loadLE32(header + 8));
    long long expectedLBA = (context.startGrainIndex + grainIndex) * context.grainSizeSectors;
    if (lba != expectedLBA)
        addFinding(kindBadGrainHeader, context.uri, "VMDK compressed grain header names another grain.",
                   zu::CProps(props).set("lba", lba).set("expectedLBA", expectedLBA));
    // The bound the library reads grains with.
    long long maxSize = 2 * context.grainBytes - headerBytes;
    if (size <= 0 || size > maxSize) {
        addFinding(kindBadGrainHeader, context.uri, "VMDK compressed grain header has an invalid size.",
                   props.set("compressedGrainSize", size).set("maxSize", maxSize));
        return -1;
    }
    // Encrypted grains keep the header in the clear and encrypt the rest of
    // the sector-padded grain, rounded up to the cipher block.
    if (!context.encrypted) return headerBytes + size;
    return headerBytes + roundUp(roundUp(headerBytes + size, vmdkSectorSize) - headerBytes,
                                 pell::CCipher_AES256CBC::blockSize);
}

void CVMDKChecker::checkGrainOverlaps(CExtentContext& context)
{
    std::sort(placements.begin(), placements.end());
    for (size_t k = 0; k + 1 < placements.size() && !full(); ++k) {
        const CPlacement& a = placements[k];
        const CPlacement& b = placements[k + 1];
        if (static_cast<long long>(a.posSectors) + a.slotSectors <= b.posSectors) continue;
        addFinding(kindGrainsOverlap, context.uri, "VMDK grains overlap in the extent file.",
                   zu::CProps()
                       .set("posSectors", static_cast<long long>(a.posSectors))
                       .set("slotSizeSectors", static_cast<long long>(a.slotSectors))
                       .set("nextPosSectors", static_cast<long long>(b.posSectors)));
    }
}

} // namespace kord
