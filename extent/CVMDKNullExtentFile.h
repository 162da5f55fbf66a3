// An extent without a file: every grain is unwritten, so reads come from the
// fallback provider (the parent disk) or are zeros, and every change is an
// internal error. The on-demand extent uses it while its file does not exist.
#pragma once

#include "extent/IVMDKExtentFile.h"

namespace kord {

class CVMDKNullExtentFile : public zu::CBase, public IVMDKExtentFile {
public:
    // The extent holds sizeSectors sectors from startSector of the disk on;
    // capacitySectors (the size the file will have, a whole number of
    // grains) only has to be at least that.
    CVMDKNullExtentFile(const zu::CURI& uri, long long startGrainIndex, long long startSector,
                        long long grainSizeSectors, long long capacitySectors, long long sizeSectors, bool compressed,
                        int compressionLevel, IVMDKDataProvider* fallback);

    void setFallbackDataProvider(IVMDKDataProvider* provider) override { fallback = provider; }
    long long getStartGrainIndex() const override { return startGrainIndex; }
    long long getGrainSizeSectors() const override { return grainSizeSectors; }
    bool getCompressed() const override { return compressed; }
    zu::CURI getURI() const override { return uri; }
    void seek(long long position) override;
    long long getPosition() const override { return position; }
    int read(void* data, int bytes) override;
    void write(const void* data, int bytes) override;
    void flushChanges() override {}
    void setSyncEnabled(bool) override {}
    zu::P<CVMDKDataPreparer> createDataPreparer() override;
    void writePreparedGrainData(const zu::TBuffer<unsigned char>& preparedData) override;
    void readPreparedGrainData(zu::TBuffer<unsigned char>& preparedData) override;
    bool makeGrainIndependentOfParent(long long grainIndex) override;
    bool isGrainWritten() override;
    bool isGrainWrittenAndIndependentOfParent() override { return false; }
    zu::P<CVMDKSpaceInfo> gatherSpaceInfo() override { return zu::newObj<CVMDKSpaceInfo>(); }
    CVMDKDataPlace locate() override;

private:
    zu::CProps uriProps() const { return zu::CProps().set("uri", uri.toString(true)); }
    long long diskPosition() const { return startSector * 512 + position; }

    zu::CURI uri;
    long long startGrainIndex;
    long long startSector;
    long long grainSizeSectors;
    bool compressed;
    int compressionLevel;
    long long sizeBytes;
    long long position = 0;
    zu::P<IVMDKDataProvider> fallback;
    zu::P<CVMDKDataPreparer> preparer;
    zu::P<zu::TBuffer<unsigned char>> preparedZeroGrain;
};

} // namespace kord
