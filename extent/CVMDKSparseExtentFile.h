// One sparse extent file (monolithicSparse, twoGbMaxExtentSparse and
// streamOptimized extents, and the extents of delta disks) as a byte stream
// of the extent's capacity.
//
// Opening reads and checks the header and the metadata it points to (for
// writing also that no two metadata structures share sectors); the first
// change reads and checks every grain table (CVMDKSparseExtentVerifier).
// Reads and writes are split at grain boundaries and go through the one
// grain object, after a check of the grain's table entry.
//
// Changes reach the disk in an order that keeps every crash point
// consistent, each step made durable (synced) before the next: before the
// first change after a flush, the renewed content ID and the header's
// uncleanShutdown flag; then, at flushChanges, the grain data (with the
// trail of a stream-optimized file), the slot-size tables, the grain tables
// with their redundant copies, and last the header marked clean. An extent
// without changes writes and syncs nothing. The same order is followed
// when tables with changes fill the grain table cache.
//
// A write that fails leaves the changes pending: the next flushChanges
// retries them all. A sync that fails means the system may have dropped
// what was written since the last one; the extent then refuses every later
// change and flush with that error, and only a fresh open of the disk
// writes to it again.
//
// Stream-optimized files of other tools (without our slot-size directory,
// or with the grain directory after the grains and the real header in the
// footer) open only where the caller accepts them, and then only for
// reading: their grains have no known room to be rewritten in.
//
// Made by the disk (and the on-demand extent); it holds its stream, header,
// grain directory, allocator and grain, and shares the grain table cache,
// the fallback provider, the content-ID updater and the cipher.
#pragma once

#include "base/CIOError.h"
#include "base/IIOStream.h"
#include "crypto/ICipher.h"
#include "descriptor/CVMDKContentIDUpdater.h"
#include "extent/IVMDKExtentFile.h"
#include "format/CVMDKSparseExtentHeader.h"
#include "grain/CVMDKGrain.h"
#include "grain/CVMDKGrainAllocator.h"
#include "grain/CVMDKGrainDirectory.h"
#include "grain/CVMDKGrainTableCache.h"

#include <memory>

namespace kord {

class CVMDKSparseExtentFile : public zu::CBase, public IVMDKExtentFile {
public:
    // The end of a stream-optimized file: footer marker, footer and
    // end-of-stream marker, one sector each.
    static constexpr int trailSectors = 3;

    // Opens the extent on its stream. compressionLevel is handed to the
    // grains' compressor; cipher, key and iv are those of an encrypted disk
    // (null, empty, empty otherwise). startGrainIndex numbers the extent's
    // grains among the disk's (for their IVs); startSector is where the
    // extent begins in the disk, for the fallback's data (-1: at grain
    // startGrainIndex, for extents that begin on a grain boundary). Throws
    // zu::CIOError (code 5 corrupt, code 6 unsupported) or the encryption
    // errors when the extent cannot be used; nothing is written while opening.
    // acceptForeignStreams: another tool's stream-optimized file opens
    // (read-only) instead of being refused.
    CVMDKSparseExtentFile(zu::IIOStream* stream, int access, long long startGrainIndex, int compressionLevel,
                          CVMDKGrainTableCache* grainTableCache, IVMDKDataProvider* fallback,
                          CVMDKContentIDUpdater* contentIDUpdater, pell::ICipher* cipher,
                          const zu::TCryptBuffer<unsigned char>& key, const zu::TBuffer<unsigned char>& iv,
                          long long startSector = -1, bool acceptForeignStreams = false);
    ~CVMDKSparseExtentFile() override;

    void setFallbackDataProvider(IVMDKDataProvider* provider) override;
    long long getStartGrainIndex() const override { return startGrainIndex; }
    long long getGrainSizeSectors() const override { return header->grainSize; }
    bool getCompressed() const override { return compressed; }
    zu::CURI getURI() const override { return stream->getURI(); }
    void seek(long long position) override;
    long long getPosition() const override { return position; }
    int read(void* data, int bytes) override;
    void write(const void* data, int bytes) override;
    void flushChanges() override;
    zu::P<CVMDKDataPreparer> createDataPreparer() override { return grain->createDataPreparer(); }
    // Off: changes are written in the same order but nothing is synced (for
    // a new file that is made durable and put in place only when complete).
    void setSyncEnabled(bool enabled) override;
    void writePreparedGrainData(const zu::TBuffer<unsigned char>& preparedData) override;
    void readPreparedGrainData(zu::TBuffer<unsigned char>& preparedData) override;
    bool readStoredGrainData(zu::TBuffer<unsigned char>& data) override;
    void writeStoredGrainData(const zu::TBuffer<unsigned char>& data) override;
    bool makeGrainIndependentOfParent(long long grainIndex) override;
    bool isGrainWritten() override;
    bool isGrainWrittenAndIndependentOfParent() override;
    zu::P<CVMDKSpaceInfo> gatherSpaceInfo() override;
    CVMDKDataPlace locate() override;

    zu::IIOStream* getStream() const { return stream; }
    // The header as read; for a stream file with the directory at its end,
    // the footer, which holds the real positions.
    const CVMDKSparseExtentHeader& getHeader() const { return *header; }
    // Another tool's stream-optimized file: read-only, grains of unknown room.
    bool isForeignStream() const { return foreignStream; }
    // The room a compressed grain of such a file may take: as much as a
    // grain is read with at most (its size field is checked then).
    long long getUnrecordedSlotSectors() const { return 2 * header->grainSize; }
    CVMDKGrainDirectory* getGrainDirectory() const { return directory; }
    CVMDKGrainAllocator* getGrainAllocator() const { return allocator; }
    CVMDKGrain* getGrain() const { return grain; }
    long long getSizeBytes() const { return sizeBytes; }
    // The first sector where grain data may lie.
    long long getGrainAreaStartSectors() const { return grainAreaStartSectors; }
    // Checks that the extent can serve an extent line of lineSizeSectors in
    // a disk of that grain size and compression; what does not fit goes to
    // the sink (throwVMDKProblem: zu::CIOError code 5 naming the file).
    void checkMatchesDisk(long long lineSizeSectors, long long diskGrainSizeSectors, bool diskCompressed,
                          const VMDKProblemSink& sink) const;
    // Flushes, then overwrites the slot-size directory of a compressed
    // extent and its tables with zeros: the file becomes a stream file as
    // other tools write it, for readers that refuse markers they do not
    // know. The extent is to be closed right after; opened again, it is
    // another tool's stream file (read-only).
    void removeSlotSizeDirectory();
    // Position and slot of a grain (index within the extent), as recorded.
    void getGrainInfo(long long extentGrainIndex, long long& posSectors, long long& slotSizeSectors);
    // Reads one grain's contents (grain size bytes) from where a table entry
    // says it is stored, an entry the caller has checked: for checks that
    // walk the tables themselves. Throws what reading the grain throws.
    void readStoredGrain(long long extentGrainIndex, long long posSectors, long long slotSizeSectors,
                         unsigned char* out);

private:
    void loadHeader(bool acceptForeignStreams);
    void checkFormat() const;
    void checkEncryption(pell::ICipher* cipher, const zu::TCryptBuffer<unsigned char>& key,
                         const zu::TBuffer<unsigned char>& iv) const;
    void checkGeometry() const;
    zu::TBuffer<unsigned char> makeTrail() const;
    long long beginIOOp(long long bytes);
    long long unwrittenGrainsAfter(long long index);
    void verifyHaveWriteAccess() const;
    void refuseChangesOfForeignStream() const;
    void onAboutToChange();
    void verifyForWriting();
    void beginChange(bool streamChanged);
    void storeHeader();
    void barrier();
    void throwIfFailed() const;
    void writeChangesInOrder();
    void flushIfCacheFull();
    zu::CProps uriProps() const;
    void checkPreparedGrainOp(bool write);
    // A whole grain at the position, prepared or (stored) in stored form;
    // flushes first where changed tables keep the cache over its limit.
    void writeWholeGrain(const zu::TBuffer<unsigned char>& data, bool stored);

    zu::P<zu::IIOStream> stream;
    int access;
    long long startGrainIndex;
    int compressionLevel;
    zu::P<CVMDKGrainTableCache> grainTableCache;
    zu::P<IVMDKDataProvider> fallback;
    zu::P<CVMDKContentIDUpdater> contentIDUpdater;
    zu::P<CVMDKSparseExtentHeader> header;
    long long grainSizeBytes = 0;
    long long sizeBytes = 0;
    bool compressed = false;
    bool foreignStream = false;
    long long grainAreaStartSectors = 0;
    zu::P<CVMDKGrainDirectory> directory;
    zu::P<CVMDKGrainAllocator> allocator;
    zu::P<CVMDKGrain> grain;
    long long position = 0;
    // Changes were made since the header last said the extent is clean.
    bool changedSinceFlush = false;
    // Every grain table has been checked and the allocator knows their end.
    bool verifiedForWriting = false;
    bool syncEnabled = true;
    // The failed sync that stops every later change.
    std::shared_ptr<const zu::CIOError> failure;
};

} // namespace kord
