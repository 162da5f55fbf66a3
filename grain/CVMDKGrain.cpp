#include "grain/CVMDKGrain.h"

#include "base/CIOError.h"
#include "base/Endian.h"
#include "format/VMDKMarker.h"

#include <algorithm>
#include <cstring>

namespace kord {

namespace {

constexpr int grainHeaderBytes = CVMDKDataPreparer::grainHeaderBytes;

long long roundUp(long long value, long long unit) { return (value + unit - 1) / unit * unit; }

bool isAllZero(const unsigned char* p, long long bytes)
{
    long long i = 0;
    for (; i + 8 <= bytes; i += 8) {
        std::uint64_t word;
        std::memcpy(&word, p + i, 8);
        if (word != 0) return false;
    }
    for (; i < bytes; ++i)
        if (p[i] != 0) return false;
    return true;
}

} // namespace

CVMDKGrain::CVMDKGrain(zu::IIOStream* stream, int access, long long grainSizeSectors, IVMDKGrainAllocator* allocator,
                       bool compressed, int compressionLevel, IVMDKDataProvider* fallback, pell::ICipher* cipher,
                       const zu::TCryptBuffer<unsigned char>& key, const zu::TBuffer<unsigned char>& diskIV,
                       long long extentStartBytes)
    : stream(stream), unbufferedStream(dynamic_cast<zu::IUnbufferedReadStream*>(stream)), access(access),
      allocator(allocator), grainSizeSectors(grainSizeSectors),
      grainSize(grainSizeSectors * vmdkSectorSize), compressed(compressed), compressionLevel(compressionLevel),
      fallback(fallback), extentStartBytes(extentStartBytes),
      preparer(zu::newObj<CVMDKDataPreparer>(grainSizeSectors, compressed, compressionLevel))
{
    if (cipher) grainCipher = zu::newObj<CVMDKGrainCipher>(cipher, key, diskIV, grainSize, compressed);
    long long maxPreparedBytes = preparer->getMaxPreparedSectors() * vmdkSectorSize;
    if (grainCipher) maxPreparedBytes = grainCipher->getStoredSize(maxPreparedBytes);
    maxCompressedSlotSectors = roundUp(maxPreparedBytes, vmdkSectorSize) / vmdkSectorSize;
}

void CVMDKGrain::makeGrainEncryptIV(zu::TBuffer<unsigned char>& iv, const zu::TBuffer<unsigned char>& diskIV,
                                    long long grainIndex)
{
    CVMDKGrainCipher::makeGrainIV(iv, diskIV, grainIndex);
}

zu::CProps CVMDKGrain::grainProps() const
{
    return zu::CProps()
        .set("extentGrainIndex", extentGrainIndex)
        .set("diskGrainIndex", diskGrainIndex)
        .set("posInGrain", posInGrain)
        .set("uri", stream->getURI().toString(true));
}

void CVMDKGrain::open(long long newExtentGrainIndex, long long newDiskGrainIndex, long long newPosSectors,
                      long long newSlotSizeSectors)
{
    close();
    if (newPosSectors >= 1) {
        if (!compressed && newSlotSizeSectors < grainSizeSectors)
            throw zu::CInvalidArgError("CVMDKGrain::open",
                                       "Slot size for allocated uncompressed grain is smaller than the grain size (slot "
                                       "size: " + zu::toString(newSlotSizeSectors) + " sectors, grain size: " +
                                           zu::toString(grainSizeSectors) + " sectors)");
        if (compressed && newSlotSizeSectors < 1)
            throw zu::CInvalidArgError("CVMDKGrain::open", "Invalid slot size for allocated compressed grain: " +
                                                               zu::toString(newSlotSizeSectors) + " sectors");
    }
    extentGrainIndex = newExtentGrainIndex;
    diskGrainIndex = newDiskGrainIndex;
    posSectors = newPosSectors;
    slotSizeSectors = newSlotSizeSectors;
    posInGrain = 0;
    rangeRead = false;
}

void CVMDKGrain::close()
{
    flushChangesToStream();
    dropCachedBuffers();
    extentGrainIndex = diskGrainIndex = posSectors = slotSizeSectors = -1;
    posInGrain = 0;
}

void CVMDKGrain::dropCachedBuffers()
{
    // The buffers keep their memory for the next grain.
    data.clear();
    dataLoaded = false;
    prepared.clear();
    preparedLoaded = false;
}

void CVMDKGrain::seek(long long position)
{
    if (position < 0 || position > grainSize)
        throw zu::CInvalidArgError("CVMDKGrain::seek", "Invalid position in grain: " + zu::toString(position),
                                   grainProps());
    posInGrain = position;
}

void CVMDKGrain::readFile(long long filePosition, unsigned char* target, long long bytes)
{
    stream->seek(filePosition);
    if (unbufferedStream)
        unbufferedStream->readUnbuffered(target, static_cast<int>(bytes));
    else
        stream->read(target, static_cast<int>(bytes));
}

void CVMDKGrain::readStoredRange(unsigned char* target, long long offset, long long bytes)
{
    long long grainStart = posSectors * vmdkSectorSize;
    if (!grainCipher) {
        readFile(grainStart + offset, target, bytes);
        return;
    }
    // CBC: block k decrypts with ciphertext block k - 1 as its IV (the
    // grain's IV for block 0).
    long long block = grainCipher->getBlockSize();
    long long first = offset / block * block;
    long long end = roundUp(offset + bytes, block);
    long long from = first > 0 ? first - block : 0;
    work.setUsed(end - from);
    readFile(grainStart + from, work.getData(), end - from);
    grainCipher->decryptBlocks(work.getData() + (first - from), end - first, diskGrainIndex,
                               first > 0 ? work.getData() : nullptr);
    std::memcpy(target, work.getData() + (offset - from), static_cast<size_t>(bytes));
}

void CVMDKGrain::readUncompressedGrain(unsigned char* target)
{
    stream->seek(posSectors * vmdkSectorSize);
    stream->read(target, static_cast<int>(grainSize));
    if (grainCipher) grainCipher->decryptBlocks(target, grainSize, diskGrainIndex, nullptr);
}

long long CVMDKGrain::checkStoredCompressedGrain(const unsigned char* firstSector, long long grainPosSectors,
                                                 long long grainSlotSectors, const VMDKProblemSink& sink) const
{
    long long position = grainPosSectors * vmdkSectorSize;
    long long size = static_cast<std::int32_t>(zu::loadLE32(firstSector + 8));
    long long fileSize = stream->getLength();
    auto report = [&](CVMDKProblem::Kind kind, const char* message) {
        sink(CVMDKProblem{kind, message,
                          zu::CProps()
                              .set("compressedGrainSize", size)
                              .set("position", position)
                              .set("slotSizeSectors", grainSlotSectors)
                              .set("fileSize", fileSize)
                              .set("uri", stream->getURI().toString(true))});
        return -1LL;
    };
    if (size <= 0 || grainHeaderBytes + size > 2 * grainSize)
        return report(CVMDKProblem::kindBadGrainHeader,
                      "Error reading compressed data from VMDK. Invalid compressed grain size.");
    long long preparedBytes = roundUp(grainHeaderBytes + size, vmdkSectorSize);
    long long storedBytes = grainCipher ? grainCipher->getStoredSize(preparedBytes) : grainHeaderBytes + size;
    if (storedBytes > grainSlotSectors * vmdkSectorSize)
        return report(CVMDKProblem::kindSlotTooSmall, "VMDK compressed grain runs past its slot.");
    if (position + storedBytes > fileSize)
        return report(CVMDKProblem::kindGrainPastEnd, "VMDK compressed grain runs past the end of the extent file.");
    return storedBytes;
}

void CVMDKGrain::readStoredCompressedGrain(zu::TBuffer<unsigned char>& out)
{
    out.setUsed(vmdkSectorSize);
    stream->seek(posSectors * vmdkSectorSize);
    stream->read(out.getData(), vmdkSectorSize);
    long long storedBytes = checkStoredCompressedGrain(out.getData(), posSectors, slotSizeSectors, throwVMDKProblem);
    // Growing keeps the used bytes: the sector already read. (A sector is
    // read at least, which may be more than an unencrypted grain stores.)
    out.setUsed(std::max<long long>(storedBytes, vmdkSectorSize));
    if (storedBytes > vmdkSectorSize)
        stream->read(out.getData() + vmdkSectorSize, static_cast<int>(storedBytes - vmdkSectorSize));
    out.setUsed(storedBytes);
}

void CVMDKGrain::readCompressedGrain(zu::TBuffer<unsigned char>& out)
{
    readStoredCompressedGrain(out);
    if (grainCipher) {
        grainCipher->decrypt(out, diskGrainIndex);
        return;
    }
    // Bytes past the deflate data up to the sector end: zeros in the prepared form.
    long long storedBytes = out.getUsed();
    long long preparedBytes = roundUp(storedBytes, vmdkSectorSize);
    out.setUsed(preparedBytes);
    std::memset(out.getData() + storedBytes, 0, static_cast<size_t>(preparedBytes - storedBytes));
}

// Fills target (one grain) with the grain's plain contents.
void CVMDKGrain::loadContents(unsigned char* target)
{
    try {
        if (readsFromFallback()) {
            fallback->getData(fallbackPosition(), target, static_cast<int>(grainSize));
        } else if (posSectors <= 0) {
            std::memset(target, 0, static_cast<size_t>(grainSize));
        } else if (compressed) {
            readCompressedGrain(prepared);
            preparedLoaded = true;
            expandPrepared(target);
        } else {
            readUncompressedGrain(target);
        }
    } catch (...) {
        dropCachedBuffers();
        throw;
    }
}

void CVMDKGrain::expandPrepared(unsigned char* target)
{
    try {
        preparer->unprepareGrainData(prepared.getData(), prepared.getUsed(), target);
    } catch (const std::exception& e) {
        throw zu::CIOError(zu::CIOError::codeInvalidData, "Error reading compressed data from VMDK. The data cannot be decompressed.",
                           grainProps().set("posSectors", posSectors), &e);
    }
}

void CVMDKGrain::read(void* target, int bytes)
{
    if (bytes < 0)
        throw zu::CInvalidArgError("CVMDKGrain::read", "Invalid number of bytes to read: " + zu::toString(bytes));
    if (posInGrain + bytes > grainSize)
        throw zu::CIOError(zu::CIOError::codeEndOfData,
                           "Unexpected end of data trying to read " + zu::toString(bytes) + " bytes from VMDK grain.",
                           zu::CProps()
                               .set("bytesToRead", bytes)
                               .set("position", posInGrain)
                               .set("uri", stream->getURI().toString(true)));
    if (bytes == 0) return;
    auto* out = static_cast<unsigned char*>(target);
    if (!dataLoaded) {
        if (posInGrain == 0 && bytes == grainSize) {
            // Whole grain: straight into the caller's buffer.
            loadContents(out);
            posInGrain = grainSize;
            return;
        }
        if (posSectors <= 0 && !readsFromFallback()) {
            std::memset(out, 0, static_cast<size_t>(bytes));
            posInGrain += bytes;
            return;
        }
        if (posSectors > 0 && !compressed && !rangeRead) {
            readStoredRange(out, posInGrain, bytes);
            rangeRead = true;
            posInGrain += bytes;
            return;
        }
        data.setUsed(grainSize);
        loadContents(data.getData());
        dataLoaded = true;
    }
    std::memcpy(out, data.getData() + posInGrain, static_cast<size_t>(bytes));
    posInGrain += bytes;
}

void CVMDKGrain::verifyWriteAccess(const char* operation) const
{
    if (access != zu::IIOStream::accessReadWrite)
        throw zu::CError("Internal error: CVMDKGrain::" + zu::String(operation) +
                         " was called, but the grain was not opened for writing.");
}

void CVMDKGrain::write(const void* source, int bytes)
{
    if (bytes < 0)
        throw zu::CInvalidArgError("CVMDKGrain::read", "Invalid number of bytes to read: " + zu::toString(bytes));
    if (posInGrain + bytes > grainSize)
        throw zu::CIOError(zu::CIOError::codeWrite,
                           "Cannot write " + zu::toString(bytes) + " bytes to grain. Grain size exceeded.");
    verifyWriteAccess("write");
    if (bytes == 0) return;
    const auto* in = static_cast<const unsigned char*>(source);
    if (bytes == grainSize) {
        // Whole grain: stored at once from the caller's buffer.
        dropCachedBuffers();
        dirty = false;
        if (needsStoring(in)) storePlain(in);
        posInGrain = grainSize;
        return;
    }
    if (!dataLoaded) {
        data.setUsed(grainSize);
        loadContents(data.getData());
        dataLoaded = true;
    }
    std::memcpy(data.getData() + posInGrain, in, static_cast<size_t>(bytes));
    posInGrain += bytes;
    dirty = true;
}

// A grain of zeros without storage needs none, unless it hides written data
// of the parent, which must then read as zeros.
bool CVMDKGrain::needsStoring(const unsigned char* plain) const
{
    if (posSectors > 0 || !isAllZero(plain, grainSize)) return true;
    return readsFromFallback() && fallback->isGrainWritten(fallbackPosition());
}

void CVMDKGrain::storePlain(const unsigned char* plain)
{
    if (compressed) {
        preparer->prepareGrainData(plain, grainSize, diskGrainIndex, prepared);
        writePreparedGrainDataInternal(prepared.getData(), prepared.getUsed(), nullptr, false);
        preparedLoaded = true;
    } else {
        writePreparedGrainDataInternal(plain, grainSize, nullptr, false);
    }
}

void CVMDKGrain::flushChangesToStream()
{
    if (!dirty) return;
    if (needsStoring(data.getData())) storePlain(data.getData());
    dirty = false;
}

void CVMDKGrain::verifyAtGrainStart(const char* message, bool withSize, long long preparedSize) const
{
    if (posInGrain == 0) return;
    zu::CProps props = grainProps();
    if (withSize) props.set("preparedDataSize", preparedSize);
    throw zu::CIOError(zu::CIOError::codeWrite, message, props);
}

void CVMDKGrain::checkPreparedWrite(long long size, bool stored) const
{
    verifyWriteAccess("writePreparedGrainData");
    verifyAtGrainStart("CVMDKGrain::writePreparedGrainData can only be called when the position in the grain is 0.",
                       true, size);
    if (size == 0)
        throw zu::CIOError(zu::CIOError::codeWrite, "CVMDKGrain::writePreparedGrainData called with zero-length prepared data.",
                           grainProps().set("preparedDataSize", size));
    long long limit = compressed ? preparer->getMaxPreparedSectors() * vmdkSectorSize : grainSize;
    if (stored && grainCipher) {
        limit = grainCipher->getStoredSize(limit);
        // Encrypted, it can no longer be padded to the grain.
        if (!compressed && size != grainSize)
            throw zu::CInvalidArgError("CVMDKGrain::writeStoredGrainData", "stored uncompressed grain data must be one grain",
                                       grainProps().set("preparedDataSize", size));
    }
    if (size > limit)
        throw zu::CInvalidArgError("CVMDKGrain::writePreparedGrainData", "prepared data is bigger than a prepared grain can be",
                                   grainProps().set("preparedDataSize", size).set("maxPreparedDataSize", limit));
}

void CVMDKGrain::writePreparedGrainData(const zu::TBuffer<unsigned char>& source)
{
    writeWholeGrain(source.getData(), source.getUsed(), nullptr, false);
}

void CVMDKGrain::writePreparedGrainDataKeepBuffer(const zu::TConstBufferSlice<unsigned char>& source)
{
    writeWholeGrain(source.getData(), source.getLength(), &source, false);
}

void CVMDKGrain::writeStoredGrainData(const zu::TBuffer<unsigned char>& source)
{
    writeWholeGrain(source.getData(), source.getUsed(), nullptr, true);
}

void CVMDKGrain::writeWholeGrain(const unsigned char* source, long long size,
                                 const zu::TConstBufferSlice<unsigned char>* keep, bool stored)
{
    checkPreparedWrite(size, stored);
    dropCachedBuffers();
    dirty = false;
    writePreparedGrainDataInternal(source, size, keep, stored);
    posInGrain = grainSize;
}

void CVMDKGrain::copyPaddedIntoWork(const unsigned char* source, long long size, long long padded)
{
    work.setUsed(padded);
    std::memcpy(work.getData(), source, static_cast<size_t>(std::min(size, padded)));
    if (size < padded) std::memset(work.getData() + size, 0, static_cast<size_t>(padded - size));
}

void CVMDKGrain::writePreparedGrainDataInternal(const unsigned char* source, long long size,
                                                const zu::TConstBufferSlice<unsigned char>* keep, bool encrypted)
{
    // An uncompressed grain fills its slot: shorter data would leave old
    // bytes behind it in place, or end the file inside the slot.
    bool padded = !compressed && size < grainSize;
    bool encrypt = grainCipher && !encrypted;
    if (encrypt)
        grainCipher->encrypt(source, size, diskGrainIndex, work);
    else if (padded)
        copyPaddedIntoWork(source, size, grainSize);
    if (encrypt || padded) {
        source = work.getData();
        size = work.getUsed();
        keep = nullptr;
    }
    long long sectors = roundUp(size, vmdkSectorSize) / vmdkSectorSize;
    // A torn write leaves every byte of a plain grain old or new, but makes
    // a compressed or encrypted grain unreadable: those are rewritten in
    // place only where no durable table points at them.
    bool tearSafe = !compressed && !grainCipher;
    bool inPlace = posSectors > 0 && (!compressed || sectors <= slotSizeSectors) &&
                   (tearSafe || allocator->isSlotUncommitted(posSectors));
    if (inPlace) {
        stream->seek(posSectors * vmdkSectorSize);
        if (keep)
            stream->writeKeepBuffer(*keep);
        else
            stream->write(source, static_cast<int>(size));
        return;
    }
    // A compressed grain takes the sectors its data needs, so that a stream
    // file is as small as its data, in apparent size too. A moved grain's
    // new slot is still at least its old one: its slot size may become
    // durable before the grain table entry that points at the new place,
    // and the old grain must still fit in between.
    long long slot = compressed ? std::max(sectors, posSectors > 0 ? slotSizeSectors : 0) : grainSizeSectors;
    long long oldPosSectors = posSectors;
    long long oldSlotSizeSectors = slotSizeSectors;
    posSectors = keep ? allocator->allocNewGrainKeepBuffer(extentGrainIndex, *keep, static_cast<int>(slot))
                      : allocator->allocNewGrain(extentGrainIndex, source, static_cast<int>(size), static_cast<int>(slot));
    slotSizeSectors = slot;
    if (oldPosSectors > 0) allocator->releaseSlot(oldPosSectors, oldSlotSizeSectors);
}

void CVMDKGrain::initZeroGrainData()
{
    if (zeroGrainPrepared) return;
    zu::P<zu::TBuffer<unsigned char>> zeros = zu::newObj<zu::TBuffer<unsigned char>>();
    zeros->setUsedFill(grainSize, 0);
    if (preparer->doesAnything()) {
        zu::P<zu::TBuffer<unsigned char>> out = zu::newObj<zu::TBuffer<unsigned char>>();
        preparer->prepareGrainData(zeros, 0, out);
        zeros = out;
    }
    zeroGrainPrepared = zeros;
}

void CVMDKGrain::readPreparedGrainData(zu::TBuffer<unsigned char>& out)
{
    if (posInGrain != 0)
        throw zu::CIOError(zu::CIOError::codeWrite,
                           "CVMDKGrain::tryReadPreparedGrainData can only be called when the position in the grain is 0.",
                           grainProps());
    flushChangesToStream();
    if (posSectors <= 0) {
        if (readsFromFallback()) {
            fallback->getPreparedGrainData(fallbackPosition(), out, static_cast<int>(grainSize), compressed);
        } else {
            initZeroGrainData();
            out.assign(zeroGrainPrepared->getData(), zeroGrainPrepared->getUsed());
            preparer->patchGrainIndexInPreparedGrainData(out, diskGrainIndex);
        }
    } else if (compressed) {
        // Prepared reads go through a disk in order, each grain once: the
        // file's bytes go straight to the caller, not through the cache.
        if (preparedLoaded)
            out.assign(prepared.getData(), prepared.getUsed());
        else
            readCompressedGrain(out);
    } else if (dataLoaded) {
        out.assign(data.getData(), data.getUsed());
    } else {
        out.setUsed(grainSize);
        readUncompressedGrain(out.getData());
    }
    posInGrain = grainSize;
}

bool CVMDKGrain::readStoredGrainData(zu::TBuffer<unsigned char>& out)
{
    verifyAtGrainStart("CVMDKGrain::tryReadPreparedGrainData can only be called when the position in the grain is 0.",
                       false, 0);
    flushChangesToStream();
    if (!grainCipher || posSectors <= 0) {
        readPreparedGrainData(out);
        return false;
    }
    if (compressed) {
        readStoredCompressedGrain(out);
    } else {
        out.setUsed(grainSize);
        stream->seek(posSectors * vmdkSectorSize);
        stream->read(out.getData(), static_cast<int>(grainSize));
    }
    posInGrain = grainSize;
    return true;
}

long long CVMDKGrain::makeIndependentOfParent()
{
    if (posInGrain != 0)
        throw zu::CIOError(zu::CIOError::codeWrite,
                           "CVMDKGrain::makeIndependentOfParent can only be called when the position in the grain is 0.",
                           grainProps());
    verifyWriteAccess("makeIndependentOfParent");
    if (!fallback) return 0;
    long long result = grainSize;
    if (posSectors == 0 && !dirty) {
        fallback->getPreparedGrainData(fallbackPosition(), parentGrain, static_cast<int>(grainSize), compressed);
        writePreparedGrainData(parentGrain);
        result = parentGrain.getUsed();
    }
    posInGrain = result;
    return result;
}

CVMDKDataPlace CVMDKGrain::locate() const
{
    CVMDKDataPlace place;
    place.bytes = grainSize - posInGrain;
    if (posSectors > 0) {
        place.kind = CVMDKDataPlace::kindData;
        if (!compressed && !grainCipher) {
            place.file = stream->getURI();
            place.offsetBytes = posSectors * vmdkSectorSize + posInGrain;
        }
    } else if (dirty) {
        // Written, and stored when the grain is closed.
        place.kind = CVMDKDataPlace::kindData;
    } else if (posSectors < 0) {
        place.kind = CVMDKDataPlace::kindZero;
    }
    return place;
}

bool CVMDKGrain::isGrainWritten()
{
    if (isGrainWrittenAndIndependentOfParent()) return true;
    return fallback && fallback->isGrainWritten(fallbackPosition());
}

zu::P<CVMDKDataPreparer> CVMDKGrain::createDataPreparer() const
{
    return zu::newObj<CVMDKDataPreparer>(grainSizeSectors, compressed, compressionLevel);
}

} // namespace kord
