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
    : stream(stream), access(access), allocator(allocator), grainSizeSectors(grainSizeSectors),
      grainSize(grainSizeSectors * vmdkSectorSize), compressed(compressed), compressionLevel(compressionLevel),
      fallback(fallback), cipher(cipher), key(key), diskIV(diskIV), extentStartBytes(extentStartBytes),
      preparer(zu::newObj<CVMDKDataPreparer>(grainSizeSectors, compressed, compressionLevel))
{
    long long maxPreparedBytes = preparer->getMaxPreparedSectors() * vmdkSectorSize;
    if (cipher) {
        long long header = compressed ? grainHeaderBytes : 0;
        maxPreparedBytes = roundUp(maxPreparedBytes - header, cipher->getBlockSize()) + header;
    }
    maxCompressedSlotSectors = roundUp(maxPreparedBytes, vmdkSectorSize) / vmdkSectorSize;
}

void CVMDKGrain::makeGrainEncryptIV(zu::TBuffer<unsigned char>& iv, const zu::TBuffer<unsigned char>& diskIV,
                                    long long grainIndex)
{
    iv.assign(diskIV.getData(), diskIV.getUsed());
    for (long long i = 0; i < iv.getUsed(); ++i)
        iv[i] = static_cast<unsigned char>(iv[i] ^ ((grainIndex >> (8 * (i % 8))) & 0xFF));
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

void CVMDKGrain::readUncompressedGrain(unsigned char* target)
{
    stream->seek(posSectors * vmdkSectorSize);
    stream->read(target, static_cast<int>(grainSize));
    if (cipher) {
        makeGrainEncryptIV(grainIV, diskIV, diskGrainIndex);
        cipher->decryptBlocksInPlace(key.getData(), target, static_cast<int>(grainSize), grainIV.getData());
    }
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
    long long storedBytes = cipher ? grainHeaderBytes + roundUp(preparedBytes - grainHeaderBytes, cipher->getBlockSize())
                                   : grainHeaderBytes + size;
    if (storedBytes > grainSlotSectors * vmdkSectorSize)
        return report(CVMDKProblem::kindSlotTooSmall, "VMDK compressed grain runs past its slot.");
    if (position + storedBytes > fileSize)
        return report(CVMDKProblem::kindGrainPastEnd, "VMDK compressed grain runs past the end of the extent file.");
    return storedBytes;
}

void CVMDKGrain::readCompressedGrain(zu::TBuffer<unsigned char>& out)
{
    out.setUsed(vmdkSectorSize);
    stream->seek(posSectors * vmdkSectorSize);
    stream->read(out.getData(), vmdkSectorSize);
    long long storedBytes = checkStoredCompressedGrain(out.getData(), posSectors, slotSizeSectors, throwVMDKProblem);
    long long size = static_cast<std::int32_t>(zu::loadLE32(out.getData() + 8));
    long long preparedBytes = roundUp(grainHeaderBytes + size, vmdkSectorSize);
    // Growing keeps the used bytes: the sector already read.
    out.setUsed(std::max(storedBytes, preparedBytes));
    if (storedBytes > vmdkSectorSize)
        stream->read(out.getData() + vmdkSectorSize, static_cast<int>(storedBytes - vmdkSectorSize));
    if (cipher) {
        makeGrainEncryptIV(grainIV, diskIV, diskGrainIndex);
        cipher->decryptBlocksInPlace(key.getData(), out.getData() + grainHeaderBytes,
                                     static_cast<int>(storedBytes - grainHeaderBytes), grainIV.getData());
    } else {
        // Bytes past the deflate data up to the sector end: zeros in the prepared form.
        std::memset(out.getData() + storedBytes, 0, static_cast<size_t>(preparedBytes - storedBytes));
    }
    out.setUsed(preparedBytes);
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
        writePreparedGrainDataInternal(prepared.getData(), prepared.getUsed(), nullptr);
        preparedLoaded = true;
    } else {
        writePreparedGrainDataInternal(plain, grainSize, nullptr);
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

void CVMDKGrain::checkPreparedWrite(long long size) const
{
    verifyWriteAccess("writePreparedGrainData");
    verifyAtGrainStart("CVMDKGrain::writePreparedGrainData can only be called when the position in the grain is 0.",
                       true, size);
    if (size == 0)
        throw zu::CIOError(zu::CIOError::codeWrite, "CVMDKGrain::writePreparedGrainData called with zero-length prepared data.",
                           grainProps().set("preparedDataSize", size));
    long long limit = compressed ? preparer->getMaxPreparedSectors() * vmdkSectorSize : grainSize;
    if (size > limit)
        throw zu::CInvalidArgError("CVMDKGrain::writePreparedGrainData", "prepared data is bigger than a prepared grain can be",
                                   grainProps().set("preparedDataSize", size).set("maxPreparedDataSize", limit));
}

void CVMDKGrain::writePreparedGrainData(const zu::TBuffer<unsigned char>& source)
{
    checkPreparedWrite(source.getUsed());
    dropCachedBuffers();
    dirty = false;
    writePreparedGrainDataInternal(source.getData(), source.getUsed(), nullptr);
    posInGrain = grainSize;
}

void CVMDKGrain::writePreparedGrainDataKeepBuffer(const zu::TConstBufferSlice<unsigned char>& source)
{
    checkPreparedWrite(source.getLength());
    dropCachedBuffers();
    dirty = false;
    writePreparedGrainDataInternal(source.getData(), source.getLength(), &source);
    posInGrain = grainSize;
}

void CVMDKGrain::copyPaddedIntoWork(const unsigned char* source, long long size, long long padded)
{
    work.setUsed(padded);
    std::memcpy(work.getData(), source, static_cast<size_t>(std::min(size, padded)));
    if (size < padded) std::memset(work.getData() + size, 0, static_cast<size_t>(padded - size));
}

void CVMDKGrain::encryptInto(const unsigned char* source, long long size)
{
    makeGrainEncryptIV(grainIV, diskIV, diskGrainIndex);
    long long header = compressed ? grainHeaderBytes : 0;
    long long payload = compressed ? roundUp(size - header, cipher->getBlockSize()) : grainSize;
    copyPaddedIntoWork(source, size, header + payload);
    cipher->encryptBlocksInPlace(key.getData(), work.getData() + header, static_cast<int>(payload), grainIV.getData());
}

void CVMDKGrain::writePreparedGrainDataInternal(const unsigned char* source, long long size,
                                                const zu::TConstBufferSlice<unsigned char>* keep)
{
    // An uncompressed grain fills its slot: shorter data would leave old
    // bytes behind it in place, or end the file inside the slot.
    bool padded = !compressed && size < grainSize;
    if (cipher)
        encryptInto(source, size);
    else if (padded)
        copyPaddedIntoWork(source, size, grainSize);
    if (cipher || padded) {
        source = work.getData();
        size = work.getUsed();
        keep = nullptr;
    }
    long long sectors = roundUp(size, vmdkSectorSize) / vmdkSectorSize;
    // A torn write leaves every byte of a plain grain old or new, but makes
    // a compressed or encrypted grain unreadable: those are rewritten in
    // place only where no durable table points at them.
    bool tearSafe = !compressed && !cipher;
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
    // A moved grain's new slot is at least its old one: its slot size may
    // become durable before the grain table entry that points at the new
    // place, and the old grain must still fit in between.
    long long slot = compressed ? std::max(maxCompressedSlotSectors, posSectors > 0 ? slotSizeSectors : 0)
                                : grainSizeSectors;
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
        if (!preparedLoaded) {
            try {
                readCompressedGrain(prepared);
            } catch (...) {
                dropCachedBuffers();
                throw;
            }
            preparedLoaded = true;
        }
        out.assign(prepared.getData(), prepared.getUsed());
    } else if (dataLoaded) {
        out.assign(data.getData(), data.getUsed());
    } else {
        out.setUsed(grainSize);
        readUncompressedGrain(out.getData());
    }
    posInGrain = grainSize;
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
