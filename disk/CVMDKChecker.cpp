#include "disk/CVMDKChecker.h"

#include "base/CIOError.h"
#include "base/Endian.h"
#include "disk/CVMDKParentDiskDataProvider.h"
#include "format/CVMDKLowLevelFileStream.h"
#include "format/VMDKMarker.h"

#include <algorithm>
#include <set>

namespace kord {

namespace {

// Corrupt (5) and unsupported (6) files are what a check reports; every
// other failure stops the check.
bool isRefusal(const zu::CIOError& error)
{
    return error.getCode() == zu::CIOError::codeInvalidData || error.getCode() == zu::CIOError::codeUnsupportedVersion;
}

} // namespace

struct CVMDKChecker::CExtentContext {
    CVMDKSparseExtentFile* extent;
    zu::CURI uri;
    long long grainSizeSectors;
    long long grainBytes;
    long long startGrainIndex;
    bool compressed;
    // The disk's size, for progress reports.
    long long diskBytes;
};

CVMDKChecker::CVMDKChecker(zu::IFileSystem* fileSystem, const zu::CURI& uri, const zu::String& password)
    : fileSystem(fileSystem), mainURI(uri.toNormalized()), password(password)
{
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
            addFinding(CVMDKProblem::kindRefused, disk->getMainURI(),
                       "VMDK parent chain loops back to one of its own disks.", uris);
            break;
        }
        if (visited.size() >= static_cast<size_t>(CVMDKParentDiskDataProvider::maxChainLength)) {
            addFinding(CVMDKProblem::kindRefused, disk->getMainURI(), "VMDK parent chain is too long.",
                       uris.set("maxChainLength", CVMDKParentDiskDataProvider::maxChainLength));
            break;
        }
        disk = openParent(disk);
    }
    if (full())
        addFinding(CVMDKProblem::kindRefused, mainURI, "Too many problems in VMDK disk; the check stopped listing them.",
                   zu::CProps().set("maxFindings", static_cast<long long>(maxFindings)));
    return findings;
}

zu::P<CVMDKDisk> CVMDKChecker::openDisk(const zu::CURI& uri)
{
    try {
        return CVMDKDisk::openAny(fileSystem, uri, zu::IIOStream::accessRead, password);
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
        addFinding(CVMDKProblem::kindParentChanged, child->getMainURI(),
                   "VMDK parent disk has changed, but a child disk depended on it.",
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
    addFinding(CVMDKProblem::kindRefused, fallbackURI, error.getMessage(), error.getProps());
}

VMDKProblemSink CVMDKChecker::sinkFor(const zu::CURI& uri)
{
    return [this, uri](const CVMDKProblem& problem) {
        if (!full()) addFinding(problem.kind, uri, problem.message, problem.props);
    };
}

void CVMDKChecker::checkDisk(CVMDKDisk* disk)
{
    checkDescriptorRoom(disk);
    int count = static_cast<int>(disk->getExtentInfos().size());
    for (int i = 0; i < count && !full(); ++i) checkExtent(disk, i);
}

// The first change of a disk renews its content ID: an embedded descriptor
// (whose area cannot grow) must have room for it. A text descriptor file is
// not held to its size.
void CVMDKChecker::checkDescriptorRoom(CVMDKDisk* disk)
{
    zu::P<CVMDKDescriptorAccessor> accessor = zu::newObj<CVMDKDescriptorAccessor>(
        openVMDKFileStream(fileSystem, disk->getMainURI(), zu::IIOStream::accessRead), zu::IIOStream::accessRead);
    if (!accessor->isEmbedded()) return;
    try {
        accessor->checkRoomForNewContentID();
    } catch (const zu::CIOError& e) {
        addFinding(CVMDKProblem::kindDescriptorFull, disk->getMainURI(), e.getMessage(), e.getProps());
    }
}

void CVMDKChecker::checkExtent(CVMDKDisk* disk, int index)
{
    zu::P<IVMDKExtentFile> opened;
    zu::CURI uri = disk->getExtentURI(index);
    try {
        opened = disk->openExtentForInspection(index);
    } catch (const zu::CIOError& e) {
        if (!isRefusal(e)) throw;
        addRefusal(e, uri);
    }
    auto* extent = zu::tryCast<CVMDKSparseExtentFile>(opened.get());
    if (!extent) return;
    extent->checkMatchesDisk(disk->getExtentInfos()[static_cast<size_t>(index)]->sizeSectors,
                             disk->getGrainSizeSectors(), disk->getCompressed(), sinkFor(uri));
    CExtentContext context{extent,
                           extent->getURI(),
                           extent->getGrainSizeSectors(),
                           extent->getGrainSizeSectors() * vmdkSectorSize,
                           extent->getStartGrainIndex(),
                           extent->getCompressed(),
                           disk->getDiskSizeBytes()};
    checkHeader(context);
    CVMDKSparseExtentVerifier verifier(*extent, sinkFor(context.uri));
    long long metadataEndSectors = verifier.verifyLayout();
    CVMDKGrainDirectory* directory = extent->getGrainDirectory();
    const zu::TBuffer<unsigned int>& redundant = directory->getRedundantEntries();
    // Entries 0 are tables that another tool's stream file leaves out.
    const zu::TBuffer<unsigned int>& entries = directory->getEntries();
    for (long long t = 0; t < redundant.getUsed() && !full(); ++t)
        if (entries[t] != 0 && redundant[t] != 0) compareTableWithCopy(context, t, redundant[t]);
    long long perTable = directory->getGrainTableEntryCount();
    long long grains = directory->getGrainCount();
    auto onGrain = [&](long long grainIndex, long long posSectors, long long slotSectors) {
        if (context.compressed && !full()) checkCompressedGrain(context, grainIndex, posSectors, slotSectors);
    };
    auto onTable = [&](long long tablesDone) {
        if (progress)
            progress(std::min(context.diskBytes,
                              (context.startGrainIndex + std::min(grains, tablesDone * perTable)) * context.grainBytes),
                     context.diskBytes);
    };
    CVMDKSparseExtentVerifier::CGrainScan scan = verifier.verifyGrains(onGrain, onTable);
    checkLeakedSpace(context, std::max(metadataEndSectors, scan.referencedEndSectors));
}

// Only the space behind everything that is used can be told for sure:
// holes between grains may be slots of another tool's layout. Zeros there
// are padding (some tools round their files up), not leaked grains.
void CVMDKChecker::checkLeakedSpace(CExtentContext& context, long long usedEndSectors)
{
    // A damaged trail is reported as such; its bytes are not counted twice.
    if (context.compressed && !context.extent->getGrainAllocator()->isTrailIntact()) return;
    zu::IIOStream* stream = context.extent->getStream();
    long long fileSize = stream->getLength();
    long long endSectors = (fileSize + vmdkSectorSize - 1) / vmdkSectorSize -
                           (context.compressed ? CVMDKSparseExtentFile::trailSectors : 0);
    long long dataEndSectors = endOfNonZeroSectors(stream, usedEndSectors, endSectors);
    if (dataEndSectors > usedEndSectors)
        addFinding(CVMDKProblem::kindLeakedSpace, context.uri,
                   "VMDK extent file holds space that no grain or metadata uses.",
                   zu::CProps()
                       .set("leakedBytes", (dataEndSectors - usedEndSectors) * vmdkSectorSize)
                       .set("usedEndSectors", usedEndSectors)
                       .set("fileSize", fileSize));
}

// Reads backwards from endSectors in chunks until a sector that is not all
// zeros: the end of that sector, or fromSectors when there is none. No tool
// pads by more than a few sectors: behind a longer run of zeros, the whole
// rest counts as unused (which also bounds the reading).
long long CVMDKChecker::endOfNonZeroSectors(zu::IIOStream* stream, long long fromSectors, long long endSectors)
{
    constexpr long long chunkSectors = 2048;
    constexpr long long maxPaddingSectors = 64 * chunkSectors;
    long long fileSize = stream->getLength();
    grainBuffer.resize(static_cast<size_t>(chunkSectors * vmdkSectorSize));
    for (long long end = endSectors; end > fromSectors;) {
        if (endSectors - end >= maxPaddingSectors) return endSectors;
        long long start = std::max(fromSectors, end - chunkSectors);
        long long bytes = std::min(end * vmdkSectorSize, fileSize) - start * vmdkSectorSize;
        stream->seek(start * vmdkSectorSize);
        stream->read(grainBuffer.data(), static_cast<int>(bytes));
        for (long long at = bytes; at > 0; --at)
            if (grainBuffer[static_cast<size_t>(at - 1)] != 0) return start + (at - 1) / vmdkSectorSize + 1;
        end = start;
    }
    return fromSectors;
}

void CVMDKChecker::checkHeader(CExtentContext& context)
{
    const CVMDKSparseExtentHeader& header = context.extent->getHeader();
    if (header.uncleanShutdown != 0)
        addFinding(CVMDKProblem::kindUncleanShutdown, context.uri, "VMDK extent file was not closed cleanly.",
                   zu::CProps().set("uncleanShutdown", static_cast<int>(header.uncleanShutdown)));
    if (context.compressed && !context.extent->getGrainAllocator()->isTrailIntact())
        addFinding(CVMDKProblem::kindDamagedTrail, context.uri,
                   "VMDK stream-optimized file does not end with its footer and end-of-stream marker.",
                   zu::CProps().set("fileSize", context.extent->getStream()->getLength()));
}

void CVMDKChecker::compareTableWithCopy(CExtentContext& context, long long tableIndex, long long redundantPosSectors)
{
    CVMDKGrainDirectory* directory = context.extent->getGrainDirectory();
    int entryCount = directory->getGrainTableEntryCount();
    zu::P<CVMDKGrainTable> table = directory->getGrainTable(tableIndex);
    bool zeroedGrainEntries =
        (context.extent->getHeader().flags & CVMDKSparseExtentHeader::flagZeroedGrainEntries) != 0;
    CVMDKGrainTable copy(context.extent->getStream(), zu::IIOStream::accessRead, context.grainSizeSectors,
                         redundantPosSectors, 0, 0, entryCount, zeroedGrainEntries);
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
        addFinding(CVMDKProblem::kindDirectoriesDisagree, context.uri, "VMDK grain table and its redundant copy disagree.",
                   zu::CProps()
                       .set("tableIndex", tableIndex)
                       .set("grainIndex", tableIndex * entryCount + first)
                       .set("posSectors", firstPos)
                       .set("redundantPosSectors", firstCopyPos)
                       .set("differingEntries", differing));
}

// A compressed grain is read as a reader would read it: its header's size
// checked by the grain's own code, then its data expanded.
void CVMDKChecker::checkCompressedGrain(CExtentContext& context, long long grainIndex, long long posSectors,
                                        long long slotSectors)
{
    unsigned char sector[vmdkSectorSize];
    zu::IIOStream* stream = context.extent->getStream();
    stream->seek(posSectors * vmdkSectorSize);
    stream->read(sector, vmdkSectorSize);
    long long lba = static_cast<long long>(zu::loadLE64(sector));
    long long expectedLBA = (context.startGrainIndex + grainIndex) * context.grainSizeSectors;
    if (lba != expectedLBA)
        addFinding(CVMDKProblem::kindGrainLBAMismatch, context.uri, "VMDK compressed grain header names another grain.",
                   zu::CProps()
                       .set("grainIndex", grainIndex)
                       .set("posSectors", posSectors)
                       .set("lba", lba)
                       .set("expectedLBA", expectedLBA));
    bool sizeFits = true;
    context.extent->getGrain()->checkStoredCompressedGrain(sector, posSectors, slotSectors,
                                                          [&](const CVMDKProblem& problem) {
                                                              sizeFits = false;
                                                              sinkFor(context.uri)(problem);
                                                          });
    if (!sizeFits) return;
    grainBuffer.resize(static_cast<size_t>(context.grainBytes));
    try {
        context.extent->readStoredGrain(grainIndex, posSectors, slotSectors, grainBuffer.data());
    } catch (const zu::CIOError& e) {
        if (e.getCode() != zu::CIOError::codeInvalidData) throw;
        addFinding(CVMDKProblem::kindBadGrainData, context.uri, e.getMessage(),
                   zu::CProps(e.getProps()).set("grainIndex", grainIndex));
    }
}

} // namespace kord
