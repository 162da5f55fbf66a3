// The one object through which a sparse extent file reads and writes grain
// data. It is opened on one grain at a time and keeps that grain's plain
// contents in memory while the caller reads or writes pieces of it. On the
// way in it decrypts and decompresses; on the way out it compresses (through
// the data preparer), encrypts and stores, in place or in new space from the
// grain allocator.
//
// A first read of part of a stored uncompressed grain reads only the bytes
// asked for (for an encrypted grain, the cipher blocks that hold them and
// the one before, which CBC decryption needs), straight from the file: a
// random 4 KiB read costs a 4 KiB read. A second read of the same grain
// suggests that more will follow, and loads the grain whole. Compressed
// grains are always read and expanded whole, and kept.
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
// Encrypted grains are stored as CVMDKGrainCipher describes.
#pragma once

#include "base/IIOStream.h"
#include "base/TBuffer.h"
#include "crypto/ICipher.h"
#include "format/CVMDKProblem.h"
#include "grain/CVMDKDataPlace.h"
#include "grain/CVMDKDataPreparer.h"
#include "grain/CVMDKGrainCipher.h"
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
    bool isEncrypted() const { return grainCipher != nullptr; }

    void seek(long long position);
    void read(void* data, int bytes);
    void write(const void* data, int bytes);
    // The whole grain as stored, decrypted but not decompressed.
    void readPreparedGrainData(zu::TBuffer<unsigned char>& out);
    void writePreparedGrainData(const zu::TBuffer<unsigned char>& data);
    void writePreparedGrainDataKeepBuffer(const zu::TConstBufferSlice<unsigned char>& data);
    // The whole grain as stored, still encrypted, when the extent is
    // encrypted and holds the grain (true); otherwise its prepared form as
    // readPreparedGrainData gives it (false). For threads that decrypt
    // beside the disk's (CVMDKGrainCipher::decrypt).
    bool readStoredGrainData(zu::TBuffer<unsigned char>& out);
    // A whole grain in stored form (CVMDKGrainCipher::encrypt of this
    // disk's key); without encryption the same as writePreparedGrainData.
    void writeStoredGrainData(const zu::TBuffer<unsigned char>& data);
    // Copies the parent's grain into this extent when it has no storage;
    // returns the bytes the grain now covers.
    long long makeIndependentOfParent();
    bool isGrainWritten();
    bool isGrainWrittenAndIndependentOfParent() const { return dirty || posSectors != 0; }
    // Where the current grain's bytes from the position on lie; no I/O.
    CVMDKDataPlace locate() const;
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
    // The stored bytes of a compressed grain, checked against its slot and the file.
    void readStoredCompressedGrain(zu::TBuffer<unsigned char>& stored);
    void readCompressedGrain(zu::TBuffer<unsigned char>& prepared);
    // Bytes [offset, offset + bytes) of the stored uncompressed grain.
    void readStoredRange(unsigned char* target, long long offset, long long bytes);
    void readFile(long long filePosition, unsigned char* target, long long bytes);
    void expandPrepared(unsigned char* target);
    bool needsStoring(const unsigned char* plain) const;
    void storePlain(const unsigned char* plain);
    // stored: the data is in stored form (encrypted where the extent is).
    void checkPreparedWrite(long long size, bool stored) const;
    // The whole grain replaced by data in prepared or (stored) stored form,
    // after the checks every whole-grain write makes.
    void writeWholeGrain(const unsigned char* data, long long size, const zu::TConstBufferSlice<unsigned char>* keep,
                         bool stored);
    // encrypted: the data is in stored form already.
    void writePreparedGrainDataInternal(const unsigned char* data, long long size,
                                        const zu::TConstBufferSlice<unsigned char>* keep, bool encrypted);
    void copyPaddedIntoWork(const unsigned char* data, long long size, long long padded);
    void initZeroGrainData();
    void verifyWriteAccess(const char* operation) const;
    void verifyAtGrainStart(const char* message, bool withSize, long long preparedSize) const;

    zu::P<zu::IIOStream> stream;
    // The stream's unbuffered reads, when it offers them (it is the stream).
    zu::IUnbufferedReadStream* unbufferedStream;
    int access;
    zu::P<IVMDKGrainAllocator> allocator;
    long long grainSizeSectors;
    long long grainSize;
    bool compressed;
    int compressionLevel;
    zu::P<IVMDKDataProvider> fallback;
    // Null for an extent without encryption.
    zu::P<CVMDKGrainCipher> grainCipher;
    long long extentStartBytes;
    zu::P<CVMDKDataPreparer> preparer;

    long long extentGrainIndex = -1;
    long long diskGrainIndex = -1;
    long long posSectors = -1;
    long long slotSizeSectors = -1;
    long long posInGrain = 0;
    // Part of the open grain was read without loading it.
    bool rangeRead = false;

    // Plain contents, valid when dataLoaded.
    zu::TBuffer<unsigned char> data;
    bool dataLoaded = false;
    // Prepared (compressed, unencrypted) form of the stored grain, valid when
    // preparedLoaded.
    zu::TBuffer<unsigned char> prepared;
    bool preparedLoaded = false;
    zu::TBuffer<unsigned char> work;
    // The parent's grain in prepared form, being copied into this extent.
    zu::TBuffer<unsigned char> parentGrain;
    zu::P<zu::TBuffer<unsigned char>> zeroGrainPrepared;
    bool dirty = false;
    long long maxCompressedSlotSectors;
};

} // namespace kord
