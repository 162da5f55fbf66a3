// A flat extent: the FLAT and VMFS extent lines of monolithicFlat,
// twoGbMaxExtentFlat, vmfs and custom disks, such as
//   RW 4096 VMFS "disk-flat.vmdk"
//   RW 2048 FLAT "disk-f001.vmdk" 0
// The extent's sectors lie one after another in a plain file, from the
// line's start offset (in sectors; none means 0). Every sector is stored,
// so every grain counts as written and nothing comes from a parent. Reads
// and writes are positional; before the first change the content-ID
// updater renews the descriptor's content ID.
//
// The disk's grain size only matters for whole grains in prepared form,
// which are made from and turned into the plain bytes by a data preparer of
// the disk's geometry, so that flat extents take part in grain copies
// between disks like any other.
//
// Made by the disk for each flat extent line; it holds the file's stream
// and shares the content-ID updater.
#pragma once

#include "base/IIOStream.h"
#include "descriptor/CVMDKContentIDUpdater.h"
#include "extent/IVMDKExtentFile.h"

namespace kord {

class CVMDKFlatExtentFile : public zu::CBase, public IVMDKExtentFile {
public:
    // stream: the flat file, opened with `access`. Throws zu::CIOError code 5
    // when the file is shorter than offsetSectors + sizeSectors, or the
    // offset is negative (a file cut off, or a line that does not fit it).
    CVMDKFlatExtentFile(zu::IIOStream* stream, int access, long long offsetSectors, long long sizeSectors,
                        long long startGrainIndex, long long grainSizeSectors, bool compressed, int compressionLevel,
                        CVMDKContentIDUpdater* contentIDUpdater);
    ~CVMDKFlatExtentFile() override;

    void setFallbackDataProvider(IVMDKDataProvider*) override {}
    long long getStartGrainIndex() const override { return startGrainIndex; }
    long long getGrainSizeSectors() const override { return grainSizeSectors; }
    bool getCompressed() const override { return compressed; }
    zu::CURI getURI() const override { return stream->getURI(); }
    void seek(long long position) override;
    long long getPosition() const override { return position; }
    int read(void* data, int bytes) override;
    void write(const void* data, int bytes) override;
    // Hands the writes to the file system and, unless syncs are off, makes
    // them durable (every byte of a flat extent is old or new after a crash).
    void flushChanges() override;
    void setSyncEnabled(bool enabled) override { syncEnabled = enabled; }
    zu::P<CVMDKDataPreparer> createDataPreparer() override;
    void writePreparedGrainData(const zu::TBuffer<unsigned char>& preparedData) override;
    void readPreparedGrainData(zu::TBuffer<unsigned char>& preparedData) override;
    // Nothing comes from a parent: false, and nothing changes.
    bool makeGrainIndependentOfParent(long long grainIndex) override;
    bool isGrainWritten() override { return true; }
    bool isGrainWrittenAndIndependentOfParent() override { return true; }
    zu::P<CVMDKSpaceInfo> gatherSpaceInfo() override;
    CVMDKDataPlace locate() override;

    long long getOffsetSectors() const { return offsetSectors; }

private:
    zu::CProps uriProps() const { return zu::CProps().set("uri", stream->getURI().toString(true)); }
    void beforeChange();

    zu::P<zu::IIOStream> stream;
    int access;
    long long offsetSectors;
    long long sizeBytes;
    long long startGrainIndex;
    long long grainSizeSectors;
    bool compressed;
    int compressionLevel;
    zu::P<CVMDKContentIDUpdater> contentIDUpdater;
    zu::P<CVMDKDataPreparer> preparer;
    long long position = 0;
    // One grain of plain bytes for prepared transfers, kept for the next.
    zu::TBuffer<unsigned char> plainGrain;
    bool changed = false;
    bool syncEnabled = true;
};

} // namespace kord
