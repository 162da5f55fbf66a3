// The one object through which a sparse extent file reads and writes grain
// data. It is opened on one grain at a time and keeps that grain's plain
// contents in memory while the caller reads or writes pieces of it. On the
// way in it decrypts and decompresses; on the way out it compresses (through
// the data preparer), encrypts and stores, in place or in new space from the
// grain allocator.
//
// Whole-grain transfers take a direct path: they move between the caller's
// buffer and the file without passing through the grain's own buffer
// (encryption needs one copy, since the caller's data is not ours to
// change). Grains the extent does not hold read from the fallback data
// provider (the parent disk) or as zeros.
//
// A rewrite stores in place only where a torn write cannot lose the grain:
// plain grains, whose bytes each end up old or new, and slots that no
// durable grain table points at yet. Compressed and encrypted grains
// otherwise move to a fresh slot and give the old one back to the
// allocator. Changes are stored when the grain is closed or flushed, never
// by the destructor (the extent flushes in its order).
//
// Encrypted grains (AES-256-CBC, per-grain IV from makeGrainEncryptIV):
// uncompressed grains are encrypted whole; compressed grains keep their
// 12-byte header in the clear and have the rest (padded with zeros to the
// cipher block) encrypted, so a stored compressed grain is 12 + P bytes,
// where P is its prepared size rounded up to sectors.
#pragma once

#include "base/IIOStream.h"
#include "base/TBuffer.h"
#include "crypto/ICipher.h"
#include "format/CVMDKProblem.h"
#include "grain/CVMDKDataPreparer.h"
#include "grain/IVMDKDataProvider.h"
#include "grain/IVMDKGrainAllocator.h"

namespace kord {

class CVMDKGrain : public zu::CBase {
public:
    // extentStartBytes: where the extent begins in the disk, so that a grain
    // the extent does not hold reads the fallback's data at its own place
    // (an extent need not begin on a grain boundary of the disk).
    CVMDKGrain(zu::IIOStream* stream, int access, long long grainSizeSectors, IVMDKGrainAllocator* allocator,
               bool compressed, int compressionLevel, IVMDKDataProvider* fallback, pell::ICipher* cipher,
               const zu::TCryptBuffer<unsigned char>& key, const zu::TBuffer<unsigned char>& diskIV,
               long long extentStartBytes);

    // The per-grain IV: the disk IV with the grain index's eight
    // little-endian bytes XORed in, repeated every eight bytes.
    static void makeGrainEncryptIV(zu::TBuffer<unsigned char>& iv, const zu::TBuffer<unsigned char>& diskIV,
                                   long long grainIndex);

    // Stores the current grain's changes and makes the given grain current.
    // posSectors 0: the grain has no storage in this extent (it reads from
    // the fallback provider); negative: a zeroed grain, without storage but
    // all zeros whatever the parent holds. A write gives either storage.
    void open(long long extentGrainIndex, long long diskGrainIndex, long long posSectors, long long slotSizeSectors);
    void close();
    bool isOpen() const { return extentGrainIndex >= 0; }
    long long getExtentGrainIndex() const { return extentGrainIndex; }
    long long getPosSectors() const { return posSectors; }
    long long getSlotSizeSectors() const { return slotSizeSectors; }
    long long getPosInGrain() const { return posInGrain; }
    long long getGrainSizeBytes() const { return grainSize; }
    bool isEncrypted() const { return cipher != nullptr; }

    void seek(long long position);
    void read(void* data, int bytes);
    void write(const void* data, int bytes);
    // The whole grain as stored, decrypted but not decompressed.
    void readPreparedGrainData(zu::TBuffer<unsigned char>& out);
    void writePreparedGrainData(const zu::TBuffer<unsigned char>& data);
    void writePreparedGrainDataKeepBuffer(const zu::TConstBufferSlice<unsigned char>& data);
    // Copies the parent's grain into this extent when it has no storage;
    // returns the bytes the grain now covers.
    long long makeIndependentOfParent();
    bool isGrainWritten();
    bool isGrainWrittenAndIndependentOfParent() const { return dirty || posSectors != 0; }
    void setFallbackDataProvider(IVMDKDataProvider* provider) { fallback = provider; }
    zu::P<CVMDKDataPreparer> createDataPreparer() const;
    void flushChangesToStream();

    // The bytes a stored compressed grain of this extent takes in the file,
    // from the size in its first sector (layout in CVMDKDataPreparer.h).
    // A size that is impossible, or runs past the slot or the end of the
    // file, is reported to the sink (then -1 is returned).
    long long checkStoredCompressedGrain(const unsigned char* firstSector, long long posSectors,
                                         long long slotSizeSectors, const VMDKProblemSink& sink) const;

    // The largest slot a compressed (and maybe encrypted) grain can need.
    long long getMaxCompressedSlotSectors() const { return maxCompressedSlotSectors; }

private:
    // Whether the grain's contents come from the fallback provider.
    bool readsFromFallback() const { return posSectors == 0 && fallback; }
    zu::CProps grainProps() const;
    // The disk position of the grain, where the fallback provider has its data.
    long long fallbackPosition() const { return extentStartBytes + extentGrainIndex * grainSize; }
    void dropCachedBuffers();
    void loadContents(unsigned char* target);
    void readUncompressedGrain(unsigned char* target);
    void readCompressedGrain(zu::TBuffer<unsigned char>& prepared);
    void expandPrepared(unsigned char* target);
    bool needsStoring(const unsigned char* plain) const;
    void storePlain(const unsigned char* plain);
    void checkPreparedWrite(long long size) const;
    void writePreparedGrainDataInternal(const unsigned char* data, long long size,
                                        const zu::TConstBufferSlice<unsigned char>* keep);
    void copyPaddedIntoWork(const unsigned char* data, long long size, long long padded);
    void encryptInto(const unsigned char* data, long long size);
    void initZeroGrainData();
    void verifyWriteAccess(const char* operation) const;
    void verifyAtGrainStart(const char* message, bool withSize, long long preparedSize) const;

    zu::P<zu::IIOStream> stream;
    int access;
    zu::P<IVMDKGrainAllocator> allocator;
    long long grainSizeSectors;
    long long grainSize;
    bool compressed;
    int compressionLevel;
    zu::P<IVMDKDataProvider> fallback;
    zu::P<pell::ICipher> cipher;
    zu::TCryptBuffer<unsigned char> key;
    zu::TBuffer<unsigned char> diskIV;
    long long extentStartBytes;
    zu::P<CVMDKDataPreparer> preparer;

    long long extentGrainIndex = -1;
    long long diskGrainIndex = -1;
    long long posSectors = -1;
    long long slotSizeSectors = -1;
    long long posInGrain = 0;

    // Plain contents, valid when dataLoaded.
    zu::TBuffer<unsigned char> data;
    bool dataLoaded = false;
    // Prepared (compressed, unencrypted) form of the stored grain, valid when
    // preparedLoaded.
    zu::TBuffer<unsigned char> prepared;
    bool preparedLoaded = false;
    zu::TBuffer<unsigned char> work;
    zu::TBuffer<unsigned char> grainIV;
    // The parent's grain in prepared form, being copied into this extent.
    zu::TBuffer<unsigned char> parentGrain;
    zu::P<zu::TBuffer<unsigned char>> zeroGrainPrepared;
    bool dirty = false;
    long long maxCompressedSlotSectors;
};

} // namespace kord
