// Sparse extent files are untrusted input, and so are the positions they
// hold, which the library later writes to. Each case patches a freshly made
// file and expects the exact error, with the file left as it was.
#include "common/ExtentTestUtil.h"

#include "grain/CVMDKDataPreparer.h"

#include <functional>

using namespace kordtest;

namespace {

constexpr long long grainBytes = 16 * 512;
constexpr long long corrupt = zu::CIOError::codeInvalidData;
constexpr long long unsupported = zu::CIOError::codeUnsupportedVersion;

// A number taken from the fresh file, or a constant.
using FileValue = std::function<long long(const Bytes&)>;
struct Num {
    Num(long long v) : of([v](const Bytes&) { return v; }) {}
    Num(FileValue f) : of(std::move(f)) {}
    FileValue of;
};
// The file's size in sectors, plus d.
FileValue endPlus(long long d) { return [d](const Bytes& f) { return static_cast<long long>(f.size()) / 512 + d; }; }
// Byte offset of entry i of the grain directory whose position is in header field `field`.
FileValue dirEntry(long long field, long long i) { return [=](const Bytes& f) { return fileLE64(f, field) * 512 + 4 * i; }; }
// Byte offset of entry i of the first grain table.
FileValue tableEntry(long long i) { return [i](const Bytes& f) { return fileLE32(f, dirEntry(hdr::gdOffset, 0)(f)) * 512 + 4 * i; }; }
// Byte offset of grain 0's data, plus d.
FileValue grain0(long long d) { return [d](const Bytes& f) { return fileLE32(f, tableEntry(0)(f)) * 512 + d; }; }
// The 32-bit value at a byte offset.
FileValue le32At(FileValue at) { return [at](const Bytes& f) { return static_cast<long long>(fileLE32(f, at(f))); }; }

using Patch = std::function<void(Bytes&)>;
// Stores a little-endian value of `bits` bits.
Patch set(int bits, Num at, Num value)
{
    return [=](Bytes& f) {
        const long long offset = at.of(f), v = value.of(f);
        for (int i = 0; i < bits / 8; ++i)
            f.at(offset + i) = static_cast<unsigned char>(static_cast<unsigned long long>(v) >> 8 * i);
    };
}

// One change to a fresh file (grain 0 written), and the error it must cause
// when the extent is opened or, for `readGrain` >= 0, when that grain is read.
struct Fault {
    const char* name;
    bool streamOptimized;
    Patch patch;
    std::string message;
    long long code = corrupt;
    long long readGrain = -1;
};

class SparseExtentHostileTest : public ExtentFileTest {
protected:
    // Expects the exact error of `action`, and the file unchanged by it and
    // by the extent's destruction.
    template <class E = zu::CIOError>
    void expectRefused(const std::function<void()>& action, const std::string& message, long long code)
    {
        const Bytes before = image();
        EXPECT_EQ(file().toString(true), expectError<E>(action, message, code).getProp("uri"));
        EXPECT_EQ(before, image()) << "a refused file must not be written";
    }
};

} // namespace

TEST_P(SparseExtentHostileTest, hostileValuesAreRefused)
{
    const std::string gdPos = "VMDK grain directory position is invalid.";
    const std::string gdEntry = "VMDK grain directory entry is invalid.";
    const std::string rgdEntry = "VMDK redundant grain directory entry is invalid.";
    const std::string intoMetadata = "VMDK grain table entry points into the metadata.";
    const std::string badSize = "Error reading compressed data from VMDK. Invalid compressed grain size.";
    const long long slotBytes = kord::CVMDKDataPreparer(16, true, 1).getMaxPreparedSectors() * 512;
    const std::vector<Fault> faults = {
        {"grainSizeZero", false, set(64, hdr::grainSize, 0), "VMDK extent file has an invalid grain size."},
        {"grainSizeHuge", false, set(64, hdr::grainSize, 4096), "VMDK extent file has an unsupported grain size.",
         unsupported},
        {"noTableEntries", false, set(32, hdr::numGTEsPerGT, 0),
         "VMDK extent file has an invalid number of grain table entries."},
        {"tooManyTableEntries", false, set(32, hdr::numGTEsPerGT, 513),
         "VMDK extent file has an unsupported number of grain table entries.", unsupported},
        {"negativeCapacity", false, set(64, hdr::capacity, -1), "VMDK extent file has an invalid capacity."},
        {"capacityBytesOverflow", false, set(64, hdr::capacity, 1LL << 62),
         "VMDK extent file has an invalid capacity."},
        {"directoryTooLarge", false, set(64, hdr::capacity, 1LL << 38), "VMDK grain directory is too large."},
        {"unknownCompression", false, set(16, hdr::compressAlgorithm, 2),
         "VMDK extent file uses an unsupported compression algorithm.", unsupported},
        {"deflateWithoutCompressedFlag", false, set(16, hdr::compressAlgorithm, 1),
         "VMDK compression algorithm and the 'compressed' flag disagree."},
        {"compressedFlagWithoutDeflate", true, set(16, hdr::compressAlgorithm, 0),
         "VMDK compression algorithm and the 'compressed' flag disagree."},
        {"overHeadZero", false, set(64, hdr::overHead, 0), "VMDK extent file is shorter than its metadata."},
        {"overHeadPastEnd", false, set(64, hdr::overHead, endPlus(1)),
         "VMDK extent file is shorter than its metadata."},
        {"descriptorPastEnd", false, set(64, hdr::descriptorOffset, 1LL << 40),
         "VMDK descriptor area is invalid (offset: 1099511627776 sectors, size: 20 sectors)."},
        {"negativeDescriptorSize", false, set(64, hdr::descriptorSize, -1),
         "VMDK descriptor area is invalid (offset: 1 sectors, size: -1 sectors)."},
        {"versionFour", false, set(32, hdr::version, 4), "VMDK file has an unsupported version: 4", unsupported},
        {"compressedWithoutMarkers", true, set(32, hdr::flags, 0x10003),
         "VMDK flags 'compressed' and 'metaMarkers' are different (compressed: true, metaMarkers: false)."},
        {"directoryAtEnd", true, set(64, hdr::gdOffset, -1),
         "VMDK file uses an unsupported variant of the 'stream optimized' format."},
        {"directoryInHeader", false, set(64, hdr::gdOffset, 0), gdPos},
        {"directoryInDescriptor", false, set(64, hdr::gdOffset, 5), "VMDK grain directory overlaps the descriptor area."},
        {"directoryPastEnd", false, set(64, hdr::gdOffset, endPlus(0)), gdPos},
        {"directoryBeyondAddressableFile", true, set(64, hdr::gdOffset, 1LL << 60), gdPos},
        {"redundantDirectoryInDescriptor", false, set(64, hdr::rgdOffset, 20),
         "VMDK redundant grain directory overlaps the descriptor area."},
        {"tableInHeader", false, set(32, dirEntry(hdr::gdOffset, 1), 0), gdEntry},
        {"tableInDescriptor", true, set(32, dirEntry(hdr::gdOffset, 2), 3), gdEntry},
        {"tablePastEnd", false, set(32, dirEntry(hdr::gdOffset, 0), endPlus(-3)), gdEntry},
        {"redundantTableInHeader", false, set(32, dirEntry(hdr::rgdOffset, 2), 0), rgdEntry},
        {"redundantTablePastEnd", true, set(32, dirEntry(hdr::rgdOffset, 0), endPlus(-3)), rgdEntry},
        {"compressedGrainInHeader", true, set(32, tableEntry(1), 1), intoMetadata, corrupt, 1},
        {"grainInLastTable", false, set(32, tableEntry(1), le32At(dirEntry(hdr::gdOffset, 2))), intoMetadata, corrupt,
         1},
        {"compressedGrainPastEnd", true, set(32, tableEntry(2), endPlus(0)),
         "VMDK grain table entry points past the end of the extent file.", corrupt, 2},
        {"compressedSizeZero", true, set(32, grain0(8), 0), badSize, corrupt, 0},
        {"compressedSizeOverTwoGrains", true, set(32, grain0(8), 2 * grainBytes - 11), badSize, corrupt, 0},
        {"compressedSizePastSlot", true, set(32, grain0(8), slotBytes - 11),
         "VMDK compressed grain runs past its slot.", corrupt, 0},
        {"fileCutInCompressedGrain", true, [](Bytes& f) { set(32, grain0(8), 1000)(f), f.resize(grain0(512)(f)); },
         "VMDK compressed grain runs past the end of the extent file.", corrupt, 0},
    };
    for (const Fault& fault : faults) {
        SCOPED_TRACE(fault.name);
        create(fault.streamOptimized ? compressedKind : plainKind, 1100);
        writeAt(*open(), 0, compressible(grainBytes, 1));
        Bytes bytes = image();
        fault.patch(bytes);
        writeAll(fs, file(), bytes);
        LogCapture log; // a cut file has lost its trail too
        expectRefused([&] {
            zu::P<kord::CVMDKSparseExtentFile> extent = open();
            if (fault.readGrain >= 0) readAt(*extent, fault.readGrain * grainBytes, grainBytes);
        }, fault.message, fault.code);
    }
}

TEST_P(SparseExtentHostileTest, encryptionParametersAreChecked)
{
    const std::string invalidArg = "Invalid argument passed to 'CVMDKSparseExtentFile constructor': VMDK extent file ";
    create(encryptedKind, 4);
    expectRefused<zu::CInvalidArgError>([&] { open(plainKind); },
                                        invalidArg + "is encrypted but no cipher object was specified..", -1);
    patchFile(fs, file(), hdr::encryptAlgorithm + 6, {0x55}); // the first byte of the key's digest
    expectRefused<zu::CError>([&] { open(encryptedKind); }, "Specified VMDK extent file encryption key is not correct.",
                              -1);
    patchFile(fs, file(), hdr::encryptAlgorithm, {2, 0});
    expectRefused<zu::CError>([&] { open(encryptedKind); },
                              "Unsupported encryption algorithm used by VMDK extent file: 2", -1);
    create(plainKind, 4);
    expectRefused<zu::CInvalidArgError>([&] { open(encryptedKind); },
                                        invalidArg + "is NOT encrypted but a cipher object was specified..", -1);
}

KORD_INSTANTIATE_FS(SparseExtentHostileTest);
