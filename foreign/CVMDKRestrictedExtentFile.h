// An extent that its descriptor line forbids to change (access RDONLY, and
// every ZERO extent) or to use at all (access NOACCESS), around the extent
// object that serves the line otherwise. Refused operations throw a
// zu::CIOError with the reason, the extent file's URI and the line; all
// else goes to the inner extent.
//
// A NOACCESS extent refuses its data rather than reading as zeros: a
// reader must not take missing data for data.
#pragma once

#include "descriptor/CVMDKExtentInfo.h"
#include "extent/IVMDKExtentFile.h"

namespace kord {

class CVMDKRestrictedExtentFile : public zu::CBase, public IVMDKExtentFile {
public:
    enum Restriction {
        readOnly,  // reads pass, changes are refused (code 3)
        noAccess,  // reads are refused too (code 2)
    };

    // reason: the message of the refusals; line: the descriptor's line.
    CVMDKRestrictedExtentFile(IVMDKExtentFile* inner, Restriction restriction, const zu::String& reason,
                              const CVMDKExtentInfo& line);

    void setFallbackDataProvider(IVMDKDataProvider* provider) override { inner->setFallbackDataProvider(provider); }
    long long getStartGrainIndex() const override { return inner->getStartGrainIndex(); }
    long long getGrainSizeSectors() const override { return inner->getGrainSizeSectors(); }
    bool getCompressed() const override { return inner->getCompressed(); }
    zu::CURI getURI() const override { return inner->getURI(); }
    void seek(long long position) override { inner->seek(position); }
    long long getPosition() const override { return inner->getPosition(); }
    int read(void* data, int bytes) override;
    void write(const void* data, int bytes) override;
    void flushChanges() override { inner->flushChanges(); }
    void setSyncEnabled(bool enabled) override { inner->setSyncEnabled(enabled); }
    zu::P<CVMDKDataPreparer> createDataPreparer() override { return inner->createDataPreparer(); }
    void writePreparedGrainData(const zu::TBuffer<unsigned char>& preparedData) override;
    void readPreparedGrainData(zu::TBuffer<unsigned char>& preparedData) override;
    bool makeGrainIndependentOfParent(long long grainIndex) override;
    bool isGrainWritten() override { return inner->isGrainWritten(); }
    bool isGrainWrittenAndIndependentOfParent() override { return inner->isGrainWrittenAndIndependentOfParent(); }
    zu::P<CVMDKSpaceInfo> gatherSpaceInfo() override { return inner->gatherSpaceInfo(); }
    CVMDKDataPlace locate() override { return inner->locate(); }

    IVMDKExtentFile* getInner() const { return inner; }

private:
    [[noreturn]] void refuse(long long code) const;
    void refuseReadsWithoutAccess() const;

    zu::P<IVMDKExtentFile> inner;
    Restriction restriction;
    zu::String reason;
    zu::String lineText;
};

} // namespace kord
