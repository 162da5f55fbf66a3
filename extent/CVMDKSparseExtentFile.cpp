#include "extent/CVMDKSparseExtentFile.h"

#include "base/CBufferStream.h"
#include "base/CDataInStream.h"
#include "base/CDataOutStream.h"
#include "base/CIOError.h"
#include "base/Log.h"
#include "crypto/CDigestType_SHA256.h"
#include "extent/CVMDKSparseExtentVerifier.h"
#include "extent/VMDKExtentBounds.h"
#include "format/VMDKEmptyLayout.h"
#include "format/VMDKMarker.h"
#include "format/VMDKStreamFooter.h"

#include <algorithm>
#include <climits>

namespace kord {

namespace {

const char* const constructorName = "CVMDKSparseExtentFile constructor";
constexpr long long maxGrainTableEntries = 512;

} // namespace

CVMDKSparseExtentFile::CVMDKSparseExtentFile(zu::IIOStream* stream, int access, long long startGrainIndex,
                                             int compressionLevel, CVMDKGrainTableCache* grainTableCache,
                                             IVMDKDataProvider* fallback, CVMDKContentIDUpdater* contentIDUpdater,
                                             pell::ICipher* cipher, const zu::TCryptBuffer<unsigned char>& key,
                                             const zu::TBuffer<unsigned char>& iv, long long startSector,
                                             bool acceptForeignStreams)
    : stream(stream), access(access), startGrainIndex(startGrainIndex), compressionLevel(compressionLevel),
      grainTableCache(grainTableCache), fallback(fallback), contentIDUpdater(contentIDUpdater),
      header(zu::newObj<CVMDKSparseExtentHeader>())
{
    loadHeader(acceptForeignStreams);
    checkEncryption(cipher, key, iv);
    compressed = (header->flags & CVMDKSparseExtentHeader::flagCompressedGrains) != 0;
    checkFormat();
    checkGeometry();
    grainSizeBytes = header->grainSize * vmdkSectorSize;
    sizeBytes = header->capacity * vmdkSectorSize;

    CVMDKGrainDirectory::CBounds bounds;
    bounds.descriptorOffsetSectors = header->descriptorOffset;
    bounds.descriptorSizeSectors = header->descriptorSize;
    bounds.overHeadSectors = header->overHead;
    bounds.fileSizeBytes = stream->getLength();
    CVMDKGrainDirectory::COptions options;
    options.zeroedGrainEntries = (header->flags & CVMDKSparseExtentHeader::flagZeroedGrainEntries) != 0;
    options.acceptForeignStreams = acceptForeignStreams;
    directory = zu::newObj<CVMDKGrainDirectory>(stream, access, header->gdOffset, header->rgdOffset, header->capacity,
                                                header->grainSize, static_cast<int>(header->numGTEsPerGT), compressed,
                                                grainTableCache, bounds, options);
    foreignStream = foreignStream || directory->isForeignStream();
    grainAreaStartSectors = std::max(header->overHead, directory->getMetadataEndSectors());
    if (foreignStream) {
        // Other tools put grain tables and the directory among or after the grains.
        grainAreaStartSectors = header->overHead;
        this->access = zu::IIOStream::accessRead;
    }
    if (header->descriptorOffset > 0)
        grainAreaStartSectors = std::max(grainAreaStartSectors, header->descriptorOffset + header->descriptorSize);
    // Reads check grain by grain; a writer must know at once that the
    // tables it writes back land on nothing else.
    if (this->access == zu::IIOStream::accessReadWrite) CVMDKSparseExtentVerifier(*this, throwVMDKProblem).verifyLayout();

    zu::TBuffer<unsigned char> trail = compressed && !foreignStream ? makeTrail() : zu::TBuffer<unsigned char>();
    allocator = zu::newObj<CVMDKGrainAllocator>(stream, this->access, grainAreaStartSectors * vmdkSectorSize,
                                                bounds.fileSizeBytes - trail.getUsed(), directory, trail);
    long long startBytes = (startSector >= 0 ? startSector : startGrainIndex * header->grainSize) * vmdkSectorSize;
    grain = zu::newObj<CVMDKGrain>(stream, this->access, header->grainSize, allocator, compressed, compressionLevel,
                                   fallback, cipher, key, iv, startBytes);
}

void CVMDKSparseExtentFile::loadHeader(bool acceptForeignStreams)
{
    stream->seek(0);
    zu::CDataInStream in(stream);
    header->load(in);
    if (header->gdOffset == CVMDKSparseExtentHeader::gdOffsetInFooter && acceptForeignStreams) {
        loadVMDKStreamFooter(stream, *header);
        foreignStream = true;
    }
}

void CVMDKSparseExtentFile::checkFormat() const
{
    if (header->version < 1 || header->version > 3)
        throw zu::CIOError(zu::CIOError::codeUnsupportedVersion,
                           "VMDK file has an unsupported version: " + zu::toString(header->version), uriProps());
    bool markers = (header->flags & CVMDKSparseExtentHeader::flagMetadataMarkers) != 0;
    if (compressed != markers)
        throw zu::CIOError(zu::CIOError::codeInvalidData,
                           "VMDK flags 'compressed' and 'metaMarkers' are different (compressed: " +
                               zu::toString(compressed) + ", metaMarkers: " + zu::toString(markers) + ").",
                           uriProps());
    if (header->gdOffset == CVMDKSparseExtentHeader::gdOffsetInFooter)
        throw zu::CIOError(zu::CIOError::codeInvalidData,
                           "VMDK file uses an unsupported variant of the 'stream optimized' format.", uriProps());
}

CVMDKSparseExtentFile::~CVMDKSparseExtentFile()
{
    try {
        if (access == zu::IIOStream::accessReadWrite) flushChanges();
    } catch (const std::exception& e) {
        zu::onExceptionInDestructorIgnored("kord::CVMDKSparseExtentFile", e);
    }
}

zu::CProps CVMDKSparseExtentFile::uriProps() const { return zu::CProps().set("uri", stream->getURI().toString(true)); }

void CVMDKSparseExtentFile::checkEncryption(pell::ICipher* cipher, const zu::TCryptBuffer<unsigned char>& key,
                                            const zu::TBuffer<unsigned char>& iv) const
{
    bool encrypted = header->extended && header->encAlg != CVMDKSparseExtentHeader::encryptionNone;
    if (!encrypted) {
        if (cipher)
            throw zu::CInvalidArgError(constructorName,
                                       "VMDK extent file is NOT encrypted but a cipher object was specified.", uriProps());
        return;
    }
    if (!cipher)
        throw zu::CInvalidArgError(constructorName, "VMDK extent file is encrypted but no cipher object was specified.",
                                   uriProps());
    if (cipher->getID() != zu::String("aes256cbc"))
        throw zu::CInvalidArgError(constructorName, "Cipher object has an unsupported ID: " + cipher->getID(), uriProps());
    if (key.getUsed() != cipher->getKeySize())
        throw zu::CInvalidArgError(constructorName, "Specified encryption key has an incorrect size for the cipher",
                                   uriProps()
                                       .set("cipherID", cipher->getID())
                                       .set("keySize", key.getUsed())
                                       .set("expectedKeySize", cipher->getKeySize()));
    // The grains read the IV's bytes through the cipher: its length must be exact.
    if (iv.getUsed() != cipher->getIVSize())
        throw zu::CInvalidArgError(constructorName, "Specified encryption IV has an incorrect size for the cipher",
                                   uriProps().set("ivSize", iv.getUsed()).set("expectedIVSize", cipher->getIVSize()));
    if (header->encAlg != CVMDKSparseExtentHeader::encryptionAES256CBC)
        throw zu::CError("Unsupported encryption algorithm used by VMDK extent file: " + zu::toString(header->encAlg),
                         zu::String(), -1, uriProps());
    if (header->encKeyHashAlg != CVMDKSparseExtentHeader::keyHashSHA256)
        throw zu::CError("Unsupported key hash algorithm used in VMDK: " + zu::toString(header->encKeyHashAlg),
                         zu::String(), -1, uriProps());
    zu::TBuffer<unsigned char> digest = pell::CDigestType_SHA256::hash(key.getData(), key.getUsed());
    if (digest != header->encKeyHash)
        throw zu::CError("Specified VMDK extent file encryption key is not correct.", zu::String(), -1, uriProps());
}

// Values that the rest of the code divides by, multiplies or allocates with
// are checked here, before anything else uses them.
void CVMDKSparseExtentFile::checkGeometry() const
{
    const CVMDKSparseExtentHeader& h = *header;
    auto fail = [this](long long code, const char* message, const char* name, long long value) {
        throw zu::CIOError(code, message, uriProps().set(name, value));
    };
    if (h.grainSize < 1) fail(zu::CIOError::codeInvalidData, "VMDK extent file has an invalid grain size.", "grainSize", h.grainSize);
    if (h.grainSize > vmdkMaxGrainSizeSectors)
        fail(zu::CIOError::codeUnsupportedVersion, "VMDK extent file has an unsupported grain size.", "grainSize", h.grainSize);
    if (h.numGTEsPerGT < 1)
        fail(zu::CIOError::codeInvalidData, "VMDK extent file has an invalid number of grain table entries.",
             "numGTEsPerGT", h.numGTEsPerGT);
    if (h.numGTEsPerGT > maxGrainTableEntries)
        fail(zu::CIOError::codeUnsupportedVersion, "VMDK extent file has an unsupported number of grain table entries.",
             "numGTEsPerGT", h.numGTEsPerGT);
    if (h.capacity < 0 || h.capacity > LLONG_MAX / vmdkSectorSize - vmdkMaxGrainSizeSectors)
        fail(zu::CIOError::codeInvalidData, "VMDK extent file has an invalid capacity.", "capacity", h.capacity);
    if (h.compressAlgorithm > CVMDKSparseExtentHeader::compressionDeflate)
        fail(zu::CIOError::codeUnsupportedVersion, "VMDK extent file uses an unsupported compression algorithm.",
             "compressAlgorithm", h.compressAlgorithm);
    if ((h.compressAlgorithm == CVMDKSparseExtentHeader::compressionDeflate) != compressed)
        throw zu::CIOError(zu::CIOError::codeInvalidData,
                           "VMDK compression algorithm and the 'compressed' flag disagree.",
                           uriProps().set("compressAlgorithm", h.compressAlgorithm).set("compressed", compressed));
    long long fileSize = stream->getLength();
    if (h.overHead < 1 || h.overHead > fileSize / vmdkSectorSize)
        throw zu::CIOError(zu::CIOError::codeInvalidData, "VMDK extent file is shorter than its metadata.",
                           uriProps().set("overHead", h.overHead).set("fileSize", fileSize));
    if (h.descriptorOffset < 0 || h.descriptorSize < 0 || h.descriptorOffset > fileSize / vmdkSectorSize ||
        h.descriptorSize > fileSize / vmdkSectorSize)
        throw zu::CIOError(zu::CIOError::codeInvalidData,
                           "VMDK descriptor area is invalid (offset: " + zu::toString(h.descriptorOffset) +
                               " sectors, size: " + zu::toString(h.descriptorSize) + " sectors).",
                           uriProps().set("fileSize", fileSize));
}

// The bytes that must follow the last grain of a stream-optimized file:
// footer marker, the footer (the header, marked clean) and end-of-stream marker.
zu::TBuffer<unsigned char> CVMDKSparseExtentFile::makeTrail() const
{
    zu::P<zu::TBuffer<unsigned char>> bytes = zu::newObj<zu::TBuffer<unsigned char>>();
    bytes->ensureAllocated(trailSectors * vmdkSectorSize);
    zu::P<zu::CBufferStream> buffer = zu::newObj<zu::CBufferStream>(bytes);
    zu::CDataOutStream out(buffer);
    zu::TBuffer<unsigned char> zeros;
    zeros.setUsedFill(vmdkSectorSize, 0);
    CVMDKSparseExtentHeader footer(*header);
    footer.uncleanShutdown = 0;
    writeVMDKMarker(out, vmdkMarkerFooter, 1, zeros);
    footer.store(out);
    writeVMDKMarker(out, vmdkMarkerEndOfStream, 0, zeros);
    return *bytes;
}

void CVMDKSparseExtentFile::checkMatchesDisk(long long lineSizeSectors, long long diskGrainSizeSectors,
                                             bool diskCompressed, const VMDKProblemSink& sink) const
{
    if (header->capacity < lineSizeSectors)
        sink(CVMDKProblem{CVMDKProblem::kindCapacityTooSmall, "VMDK extent file is smaller than its extent line.",
                          uriProps().set("capacity", header->capacity).set("extentSize", lineSizeSectors)});
    if (header->grainSize != diskGrainSizeSectors)
        sink(CVMDKProblem{CVMDKProblem::kindExtentMismatch,
                          "VMDK extent file has another grain size than the disk's first extent.",
                          uriProps().set("grainSize", header->grainSize).set("expectedGrainSize", diskGrainSizeSectors)});
    if (compressed != diskCompressed)
        sink(CVMDKProblem{CVMDKProblem::kindExtentMismatch,
                          "VMDK extent file differs in compression from the disk's first extent.",
                          uriProps().set("compressed", compressed).set("expectedCompressed", diskCompressed)});
}

void CVMDKSparseExtentFile::setFallbackDataProvider(IVMDKDataProvider* provider)
{
    fallback = provider;
    grain->setFallbackDataProvider(provider);
}

void CVMDKSparseExtentFile::getGrainInfo(long long extentGrainIndex, long long& posSectors, long long& slotSizeSectors)
{
    directory->getGrainInfo(extentGrainIndex, posSectors, slotSizeSectors);
}

void CVMDKSparseExtentFile::readStoredGrain(long long extentGrainIndex, long long posSectors, long long slotSizeSectors,
                                            unsigned char* out)
{
    grain->open(extentGrainIndex, startGrainIndex + extentGrainIndex, posSectors, slotSizeSectors);
    grain->read(out, static_cast<int>(grainSizeBytes));
}

void CVMDKSparseExtentFile::seek(long long newPosition)
{
    checkExtentSeek(*this, "CVMDKSparseExtentFile::seek", newPosition, sizeBytes);
    position = newPosition;
    if (grain->isOpen() && position / grainSizeBytes == grain->getExtentGrainIndex())
        grain->seek(position % grainSizeBytes);
}

long long CVMDKSparseExtentFile::beginIOOp(long long bytes)
{
    long long index = position / grainSizeBytes;
    if (!grain->isOpen() || grain->getExtentGrainIndex() != index) {
        long long posSectors = 0;
        long long slotSizeSectors = 0;
        directory->getGrainInfo(index, posSectors, slotSizeSectors);
        if (foreignStream && posSectors > 0) slotSizeSectors = getUnrecordedSlotSectors();
        // Read and written through: it must lie where grain data may be.
        CVMDKSparseExtentVerifier(*this, throwVMDKProblem).verifyGrainEntry(index, posSectors, slotSizeSectors);
        grain->open(index, startGrainIndex + index, posSectors, slotSizeSectors);
    }
    grain->seek(position % grainSizeBytes);
    long long left = grainSizeBytes - grain->getPosInGrain();
    if (left <= 0)
        throw zu::CError("Internal error. After seeking to grain at position " + zu::toString(position) +
                         " there are still no bytes left in the grain.");
    return std::min(bytes, left);
}

int CVMDKSparseExtentFile::read(void* data, int bytes)
{
    checkExtentTransfer(*this, "sparse", position, bytes, sizeBytes);
    auto* out = static_cast<unsigned char*>(data);
    long long done = 0;
    while (done < bytes) {
        long long n = beginIOOp(bytes - done);
        grain->read(out + done, static_cast<int>(n));
        position += n;
        done += n;
    }
    return bytes;
}

void CVMDKSparseExtentFile::write(const void* data, int bytes)
{
    checkExtentTransfer(*this, nullptr, position, bytes, sizeBytes);
    refuseChangesOfForeignStream();
    flushIfCacheFull();
    onAboutToChange();
    const auto* in = static_cast<const unsigned char*>(data);
    long long done = 0;
    while (done < bytes) {
        long long n = beginIOOp(bytes - done);
        grain->write(in + done, static_cast<int>(n));
        position += n;
        done += n;
    }
}

void CVMDKSparseExtentFile::checkPreparedGrainOp(bool write)
{
    checkExtentWholeGrain(*this, write, position, sizeBytes, grainSizeBytes);
    if (beginIOOp(grainSizeBytes) < grainSizeBytes)
        throw zu::CError(write ? "Internal error: CVMDKSparseExtentFile::beginIOOp in "
                                 "CVMDKSparseExtentFile::writePreparedGrainData returned less than the grain size."
                               : "Internal error: CVMDKSparseExtentFile::beginIOOp in "
                                 "CVMDKSparseExtentFile::tryReadPreparedGrainData returned less than the grain size.",
                         zu::String(), -1,
                         uriProps().set("extentSize", sizeBytes).set("grainSize", grainSizeBytes).set("position", position));
}

void CVMDKSparseExtentFile::writePreparedGrainData(const zu::TBuffer<unsigned char>& preparedData)
{
    writeWholeGrain(preparedData, false);
}

void CVMDKSparseExtentFile::writeStoredGrainData(const zu::TBuffer<unsigned char>& data) { writeWholeGrain(data, true); }

void CVMDKSparseExtentFile::writeWholeGrain(const zu::TBuffer<unsigned char>& data, bool stored)
{
    refuseChangesOfForeignStream();
    checkPreparedGrainOp(true);
    flushIfCacheFull();
    onAboutToChange();
    if (stored)
        grain->writeStoredGrainData(data);
    else
        grain->writePreparedGrainData(data);
    position += grainSizeBytes;
}

void CVMDKSparseExtentFile::readPreparedGrainData(zu::TBuffer<unsigned char>& preparedData)
{
    checkPreparedGrainOp(false);
    grain->readPreparedGrainData(preparedData);
    position += grainSizeBytes;
}

bool CVMDKSparseExtentFile::readStoredGrainData(zu::TBuffer<unsigned char>& data)
{
    checkPreparedGrainOp(false);
    bool stored = grain->readStoredGrainData(data);
    position += grainSizeBytes;
    return stored;
}

bool CVMDKSparseExtentFile::makeGrainIndependentOfParent(long long grainIndex)
{
    refuseChangesOfForeignStream();
    verifyHaveWriteAccess();
    throwIfFailed();
    seek(grainIndex * grainSizeBytes);
    beginIOOp(grainSizeBytes);
    verifyForWriting();
    // The disk's contents do not change, so its content ID stays; but the
    // file does, so it is marked as being changed.
    flushIfCacheFull();
    beginChange(false);
    long long covered = grain->makeIndependentOfParent();
    position += grainSizeBytes;
    return covered > 0;
}

bool CVMDKSparseExtentFile::isGrainWritten()
{
    beginIOOp(1);
    return grain->isGrainWritten();
}

CVMDKDataPlace CVMDKSparseExtentFile::locate()
{
    beginIOOp(1);
    CVMDKDataPlace place = grain->locate();
    if (place.kind == CVMDKDataPlace::kindUnwritten)
        place.bytes += unwrittenGrainsAfter(position / grainSizeBytes) * grainSizeBytes;
    // The last grain of an extent may end past it.
    place.bytes = std::min(place.bytes, sizeBytes - position);
    return place;
}

// One query covers a run of unwritten grains, so that maps of big empty
// disks take a table lookup per table, not a grain opened per grain. The
// grain before them was just looked up in the same table: it is in memory.
long long CVMDKSparseExtentFile::unwrittenGrainsAfter(long long index)
{
    long long perTable = directory->getGrainTableEntryCount();
    long long end = std::min(directory->getGrainCount(), (index / perTable + 1) * perTable);
    zu::P<CVMDKGrainTable> table = directory->getGrainTable(index / perTable);
    long long count = 0;
    for (long long i = index + 1; i < end; ++i, ++count) {
        long long pos = 0, slot = 0;
        table->getGrainInfo(i % perTable, pos, slot);
        if (pos != 0) break;
    }
    return count;
}

bool CVMDKSparseExtentFile::isGrainWrittenAndIndependentOfParent()
{
    beginIOOp(1);
    return grain->isGrainWrittenAndIndependentOfParent();
}

void CVMDKSparseExtentFile::verifyHaveWriteAccess() const
{
    if (access != zu::IIOStream::accessReadWrite)
        throw zu::CError("Internal error: VMDK sparse extent file is about to be changed, but it was not opened for "
                         "writing.");
}

void CVMDKSparseExtentFile::refuseChangesOfForeignStream() const
{
    if (foreignStream)
        throw zu::CIOError(zu::CIOError::codeWrite,
                           "VMDK stream-optimized file made by another tool can only be read, not written.", uriProps());
}

void CVMDKSparseExtentFile::onAboutToChange()
{
    if (!contentIDUpdater)
        throw zu::CError("Internal error: VMDK sparse extent file is about to be changed, but it does not have a content "
                         "ID updater.",
                         zu::String(), -1, uriProps());
    verifyHaveWriteAccess();
    throwIfFailed();
    verifyForWriting();
    bool renewing = contentIDUpdater->isRenewalPending();
    if (renewing) contentIDUpdater->onDiskAboutToChange(stream->getURI(), stream, syncEnabled);
    beginChange(renewing);
}

// Before the first change, every grain table is read once and checked, and
// the allocator learns where the grains they reference end. A refused file
// has not been touched: not even its content ID has changed.
void CVMDKSparseExtentFile::verifyForWriting()
{
    if (verifiedForWriting) return;
    // Compressed and encrypted grains move when rewritten, and the slots
    // they leave are free once no table points at them: what no table
    // references is handed out again.
    CVMDKSparseExtentVerifier::GapVisitor reuse;
    if (compressed || grain->isEncrypted())
        reuse = [this](long long posSectors, long long sectors) { allocator->addFreeSpace(posSectors, sectors); };
    CVMDKSparseExtentVerifier::CGrainScan scan =
        CVMDKSparseExtentVerifier(*this, throwVMDKProblem).verifyGrains(nullptr, nullptr, reuse);
    allocator->setReferencedEnd(scan.referencedEndSectors * vmdkSectorSize);
    // Written back with the next flush, so that no later release of these
    // slots hands out the next grain's sectors.
    for (const CVMDKSparseExtentVerifier::CShortenedSlot& slot : scan.shortenedSlots)
        directory->setGrainInfo(slot.grainIndex, slot.posSectors, slot.slotSectors);
    long long trailSectors = allocator->getAllocationPointBytes() / vmdkSectorSize;
    if (reuse && allocator->endsWithOurTrail() && trailSectors > scan.referencedEndSectors)
        reuse(scan.referencedEndSectors, trailSectors - scan.referencedEndSectors);
    verifiedForWriting = true;
}

// Before the first change after a flush the header says "unclean" on disk,
// and that (with a content ID just renewed in this file) is durable before
// any grain changes.
void CVMDKSparseExtentFile::beginChange(bool streamChanged)
{
    if (changedSinceFlush && !streamChanged) return;
    if (header->uncleanShutdown == 0) {
        header->uncleanShutdown = 1;
        storeHeader();
    }
    barrier();
    changedSinceFlush = true;
}

void CVMDKSparseExtentFile::storeHeader()
{
    stream->seek(0);
    zu::CDataOutStream out(stream);
    header->store(out);
}

void CVMDKSparseExtentFile::barrier()
{
    // A write that fails here leaves the changes pending: a later flush retries.
    stream->flush();
    if (!syncEnabled) return;
    try {
        zu::syncStream(*stream);
    } catch (const std::exception& e) {
        // What was written since the last sync may be lost without a trace
        // (the system may have dropped it): nothing that could point at it
        // may be written any more.
        failure = std::make_shared<zu::CIOError>(
            zu::CIOError::codeWrite,
            "VMDK extent file could not be made durable; changes since the last flush may be lost. Open the disk "
            "again to write to it.",
            uriProps(), &e);
        throw *failure;
    }
}

void CVMDKSparseExtentFile::throwIfFailed() const
{
    if (failure) throw *failure;
}

void CVMDKSparseExtentFile::flushChanges()
{
    if (access != zu::IIOStream::accessReadWrite) return;
    throwIfFailed();
    if (!changedSinceFlush) return;
    writeChangesInOrder();
    header->uncleanShutdown = 0;
    storeHeader();
    barrier();
    changedSinceFlush = false;
}

// Grain data and the trail behind it, then the slot sizes, then the grain
// tables: each durable before anything that points at it is written.
void CVMDKSparseExtentFile::writeChangesInOrder()
{
    grain->flushChangesToStream();
    allocator->flushChangesToStream();
    barrier();
    allocator->beginCommit();
    if (directory->flushChangesToStream([this] { barrier(); })) barrier();
    allocator->commit();
}

// Tables with changes are never evicted from the cache; when they keep it
// over its limit they are written now, so that it can shrink again.
void CVMDKSparseExtentFile::flushIfCacheFull()
{
    if (!grainTableCache->isOverLimit() || !directory->hasChangedTables()) return;
    writeChangesInOrder();
    grainTableCache->enforceLimit();
}

void CVMDKSparseExtentFile::setSyncEnabled(bool enabled) { syncEnabled = enabled; }

void CVMDKSparseExtentFile::removeSlotSizeDirectory()
{
    verifyHaveWriteAccess();
    if (!directory->getHaveSlotSizeInfo())
        throw zu::CError("Internal error: CVMDKSparseExtentFile::removeSlotSizeDirectory was called on an extent without "
                         "a slot-size directory.",
                         zu::String(), -1, uriProps());
    flushChanges();
    // Each of these follows a marker sector, which goes too.
    const long long tableSectors = 2;
    long long directoryPos = directory->getSlotSizeDirectoryPosSectors();
    long long directorySectors = (directory->getGrainTableCount() * 4 + vmdkSectorSize - 1) / vmdkSectorSize;
    zu::TBuffer<unsigned char> zeros;
    zeros.setUsedFill((1 + std::max(directorySectors, tableSectors)) * vmdkSectorSize, 0);
    auto clear = [&](long long posSectors, long long sectors) {
        stream->seek((posSectors - 1) * vmdkSectorSize);
        stream->write(zeros.getData(), static_cast<int>((1 + sectors) * vmdkSectorSize));
    };
    const zu::TBuffer<unsigned int>& tables = directory->getSlotSizeDirectory();
    for (long long t = 0; t < tables.getUsed(); ++t) clear(tables[t], tableSectors);
    clear(directoryPos, directorySectors);
    stream->flush();
}

zu::P<CVMDKSpaceInfo> CVMDKSparseExtentFile::gatherSpaceInfo()
{
    if (access == zu::IIOStream::accessReadWrite) {
        // Pending grains and the trail behind them: the slots counted below
        // must lie in the file.
        grain->flushChangesToStream();
        allocator->flushChangesToStream();
    }
    // The scan refuses what would make the numbers wrong (grains in the
    // metadata, past the end, or sharing sectors) with the damage named.
    CVMDKSparseExtentVerifier::CGrainScan scan = CVMDKSparseExtentVerifier(*this, throwVMDKProblem).verifyGrains();
    zu::P<CVMDKSpaceInfo> info = zu::newObj<CVMDKSpaceInfo>();
    info->payloadSize = scan.writtenGrains * grainSizeBytes;
    info->payloadSizeInFile = scan.slotSectorsInFile * vmdkSectorSize;
    info->headerSize = header->overHead * vmdkSectorSize;
    long long fileSize = stream->getLength();
    info->deadSpace = fileSize - info->headerSize - info->payloadSizeInFile;
    if (info->deadSpace < 0)
        throw zu::CError("Calculated negative dead space value for VMDK extent file '" + stream->getURI().toString(true) +
                         "' (deadSpace: " + zu::toString(info->deadSpace) + ", headerSize: " +
                         zu::toString(info->headerSize) + ", payloadSize: " + zu::toString(info->payloadSize) +
                         ", payloadSizeInFile: " + zu::toString(info->payloadSizeInFile) + ")");
    return info;
}

} // namespace kord
