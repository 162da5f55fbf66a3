// Sparse extent files are untrusted input, and so are the positions they
// hold, which the library later writes to. Each case patches one field of a
// freshly made file and expects the exact error, with the file left as it
// was. Files made by our layout functions, in every variant, and by qemu-img
// must still open.
#include "common/ExtentTestUtil.h"

#include <functional>

using kordtest::Bytes;
using kordtest::expectThrows;
using kordtest::fileLE32;
using kordtest::fileLE64;
using kordtest::le32;
using kordtest::le64;
using kordtest::msg;
namespace hdr = kordtest::hdr;

namespace {

constexpr long long grainSectors = 16;
constexpr long long grainBytes = grainSectors * 512;
constexpr long long codeCorrupt = zu::CIOError::codeInvalidData;
constexpr long long codeUnsupported = zu::CIOError::codeUnsupportedVersion;

const kordtest::ExtentKind plainKind = kordtest::allExtentKinds()[0];
const kordtest::ExtentKind compressedKind = kordtest::allExtentKinds()[1];

Bytes le16(unsigned v) { return {static_cast<unsigned char>(v), static_cast<unsigned char>(v >> 8)}; }
Bytes sle64(long long v) { return le64(static_cast<unsigned long long>(v)); }

// One patch of a fresh file; the value may depend on the file's bytes.
struct Fault {
    const char* name;
    bool streamOptimized;
    std::function<long long(const Bytes&)> offset;
    std::function<Bytes(const Bytes&)> value;
    std::string message;
    long long code;
};

std::function<long long(const Bytes&)> at(long long offset)
{
    return [offset](const Bytes&) { return offset; };
}
std::function<Bytes(const Bytes&)> is(Bytes value)
{
    return [value](const Bytes&) { return value; };
}
long long fileSectors(const Bytes& file) { return static_cast<long long>(file.size()) / 512; }
// Entry i of the grain directory at header field `field`.
std::function<long long(const Bytes&)> directoryEntry(long long field, long long i)
{
    return [field, i](const Bytes& file) { return static_cast<long long>(fileLE64(file, field)) * 512 + 4 * i; };
}

class SparseExtentHostileTest : public kordtest::FileSystemTest {
protected:
    zu::CURI file() const { return uri("extent.vmdk"); }
    Bytes image() const { return kordtest::readAll(fs, file()); }
    void create(const kordtest::ExtentKind& kind, long long grains = 1100)
    {
        fs->deleteFile(file(), true);
        kordtest::createExtent(fs, file(), kind, grains, grainSectors);
    }
    zu::P<kord::CVMDKSparseExtentFile> open(bool encrypted = false)
    {
        kordtest::ExtentSetup setup;
        setup.encrypted = encrypted;
        return setup.open(fs, file());
    }
    // Expects the exact error of `action`, and the file unchanged by it and
    // by the extent's destruction.
    template <class E = zu::CIOError>
    E expectFailure(const std::function<void()>& action, const std::string& message, long long code)
    {
        Bytes before = image();
        E e = expectThrows<E>(action);
        EXPECT_EQ(message, msg(e));
        EXPECT_EQ(code, e.getCode());
        EXPECT_EQ(file().toString(true), e.getProp("uri"));
        EXPECT_EQ(before, image()) << "a refused file must not be written";
        return e;
    }
    void runFaults(const std::vector<Fault>& faults)
    {
        for (const Fault& fault : faults) {
            SCOPED_TRACE(fault.name);
            create(fault.streamOptimized ? compressedKind : plainKind);
            Bytes file = image();
            kordtest::patchFile(fs, this->file(), fault.offset(file), fault.value(file));
            expectFailure([&] { open(); }, fault.message, fault.code);
        }
    }
    // Reads grain g of the extent in its own scope, so that the extent is
    // gone (and would have written whatever it meant to) before the file is
    // compared.
    std::function<void()> readGrain(long long g)
    {
        return [this, g] {
            zu::P<kord::CVMDKSparseExtentFile> extent = open();
            Bytes data(grainBytes);
            extent->seek(g * grainBytes);
            extent->read(data.data(), static_cast<int>(grainBytes));
        };
    }
};

} // namespace

TEST_P(SparseExtentHostileTest, headerValuesOutOfRangeAreRefused)
{
    runFaults({
        {"grainSizeZero", false, at(hdr::grainSize), is(le64(0)), "VMDK extent file has an invalid grain size.", codeCorrupt},
        {"grainSizeHuge", false, at(hdr::grainSize), is(le64(4096)), "VMDK extent file has an unsupported grain size.",
         codeUnsupported},
        {"noTableEntries", false, at(hdr::numGTEsPerGT), is(le32(0)),
         "VMDK extent file has an invalid number of grain table entries.", codeCorrupt},
        {"tooManyTableEntries", false, at(hdr::numGTEsPerGT), is(le32(513)),
         "VMDK extent file has an unsupported number of grain table entries.", codeUnsupported},
        {"negativeCapacity", false, at(hdr::capacity), is(sle64(-1)), "VMDK extent file has an invalid capacity.",
         codeCorrupt},
        {"capacityBytesOverflow", false, at(hdr::capacity), is(le64(1ULL << 62)),
         "VMDK extent file has an invalid capacity.", codeCorrupt},
        {"directoryTooLarge", false, at(hdr::capacity), is(le64(1ULL << 38)), "VMDK grain directory is too large.",
         codeCorrupt},
        {"unknownCompression", false, at(hdr::compressAlgorithm), is(le16(2)),
         "VMDK extent file uses an unsupported compression algorithm.", codeUnsupported},
        {"deflateWithoutCompressedFlag", false, at(hdr::compressAlgorithm), is(le16(1)),
         "VMDK compression algorithm and the 'compressed' flag disagree.", codeCorrupt},
        {"compressedFlagWithoutDeflate", true, at(hdr::compressAlgorithm), is(le16(0)),
         "VMDK compression algorithm and the 'compressed' flag disagree.", codeCorrupt},
        {"overHeadZero", false, at(hdr::overHead), is(le64(0)), "VMDK extent file is shorter than its metadata.",
         codeCorrupt},
        {"overHeadPastEnd", false, at(hdr::overHead),
         [](const Bytes& f) { return sle64(fileSectors(f) + 1); }, "VMDK extent file is shorter than its metadata.",
         codeCorrupt},
        {"descriptorPastEnd", false, at(hdr::descriptorOffset), is(le64(1ULL << 40)),
         "VMDK descriptor area is invalid (offset: 1099511627776 sectors, size: 20 sectors).", codeCorrupt},
        {"negativeDescriptorSize", false, at(hdr::descriptorSize), is(sle64(-1)),
         "VMDK descriptor area is invalid (offset: 1 sectors, size: -1 sectors).", codeCorrupt},
        {"versionFour", false, at(hdr::version), is(le32(4)), "VMDK file has an unsupported version: 4",
         codeUnsupported},
        {"compressedWithoutMarkers", true, at(hdr::flags), is(le32(0x10003)),
         "VMDK flags 'compressed' and 'metaMarkers' are different (compressed: true, metaMarkers: false).",
         codeCorrupt},
        {"directoryAtEnd", true, at(hdr::gdOffset), is(sle64(-1)),
         "VMDK file uses an unsupported variant of the 'stream optimized' format.", codeCorrupt},
    });
}

TEST_P(SparseExtentHostileTest, misplacedDirectoriesAndTablesAreRefused)
{
    const std::string gdPos = "VMDK grain directory position is invalid.";
    const std::string rgdPos = "VMDK redundant grain directory position is invalid.";
    const std::string gdEntry = "VMDK grain directory entry is invalid.";
    const std::string rgdEntry = "VMDK redundant grain directory entry is invalid.";
    auto pastEnd = [](const Bytes& f) { return le32(static_cast<unsigned>(fileSectors(f) - 3)); };
    runFaults({
        {"directoryInHeader", false, at(hdr::gdOffset), is(le64(0)), gdPos, codeCorrupt},
        {"directoryInDescriptor", false, at(hdr::gdOffset), is(le64(5)), gdPos, codeCorrupt},
        {"directoryPastEnd", false, at(hdr::gdOffset), [](const Bytes& f) { return sle64(fileSectors(f)); }, gdPos,
         codeCorrupt},
        {"directoryBeyondAddressableFile", true, at(hdr::gdOffset), is(le64(1ULL << 60)), gdPos, codeCorrupt},
        {"redundantDirectoryInDescriptor", false, at(hdr::rgdOffset), is(le64(20)), rgdPos, codeCorrupt},
        {"tableInHeader", false, directoryEntry(hdr::gdOffset, 1), is(le32(0)), gdEntry, codeCorrupt},
        {"tableInDescriptor", true, directoryEntry(hdr::gdOffset, 2), is(le32(3)), gdEntry, codeCorrupt},
        {"tablePastEnd", false, directoryEntry(hdr::gdOffset, 0), pastEnd, gdEntry, codeCorrupt},
        {"redundantTableInHeader", false, directoryEntry(hdr::rgdOffset, 2), is(le32(0)), rgdEntry, codeCorrupt},
        {"redundantTablePastEnd", true, directoryEntry(hdr::rgdOffset, 0), pastEnd, rgdEntry, codeCorrupt},
    });
}

TEST_P(SparseExtentHostileTest, encryptionParametersAreChecked)
{
    create(kordtest::allExtentKinds()[2]);
    auto withCipher = [this](bool cipher, const zu::TCryptBuffer<unsigned char>& key) {
        kordtest::ExtentSetup setup;
        zu::P<zu::IIOStream> stream = kord::openVMDKFileStream(fs, file(), setup.access);
        zu::P<pell::ICipher> aes;
        if (cipher) aes = zu::newObj<pell::CCipher_AES256CBC>();
        zu::newObj<kord::CVMDKSparseExtentFile>(stream, setup.access, 0, 1, zu::newObj<kord::CVMDKGrainTableCache>(8),
                                                nullptr, nullptr, aes, key, kordtest::testIV());
    };
    zu::TCryptBuffer<unsigned char> wrongKey = kordtest::testKey();
    wrongKey[0] ^= 1;
    expectFailure<zu::CInvalidArgError>(
        [&] { withCipher(false, wrongKey); },
        "Invalid argument passed to 'CVMDKSparseExtentFile constructor': VMDK extent file is encrypted but no cipher "
        "object was specified..",
        -1);
    expectFailure<zu::CError>([&] { withCipher(true, wrongKey); },
                              "Specified VMDK extent file encryption key is not correct.", -1);
    kordtest::patchFile(fs, file(), 79, le16(2)); // encAlg
    expectFailure<zu::CError>([&] { withCipher(true, kordtest::testKey()); },
                              "Unsupported encryption algorithm used by VMDK extent file: 2", -1);

    create(plainKind);
    expectFailure<zu::CInvalidArgError>(
        [&] { withCipher(true, kordtest::testKey()); },
        "Invalid argument passed to 'CVMDKSparseExtentFile constructor': VMDK extent file is NOT encrypted but a "
        "cipher object was specified..",
        -1);
}

TEST_P(SparseExtentHostileTest, grainTableEntryOutsideGrainAreaIsRefusedWhenRead)
{
    for (bool streamOptimized : {false, true}) {
        SCOPED_TRACE(streamOptimized ? "compressed" : "plain");
        create(streamOptimized ? compressedKind : plainKind);
        Bytes file = image();
        long long table = fileLE32(file, static_cast<long long>(fileLE64(file, hdr::gdOffset)) * 512);
        kordtest::patchFile(fs, this->file(), table * 512 + 4, le32(1));
        zu::CIOError e =
            expectFailure(readGrain(1), "VMDK grain table entry points into the metadata.", codeCorrupt);
        EXPECT_EQ("1", e.getProp("grainIndex"));
        EXPECT_EQ("1", e.getProp("posSectors"));
        // The last grain table itself, just before the grain area.
        kordtest::patchFile(fs, this->file(), table * 512 + 4,
                            le32(fileLE32(file, static_cast<long long>(fileLE64(file, hdr::gdOffset)) * 512 + 8)));
        expectFailure(readGrain(1), "VMDK grain table entry points into the metadata.", codeCorrupt);

        kordtest::patchFile(fs, this->file(), table * 512 + 8, le32(static_cast<unsigned>(fileSectors(file))));
        expectFailure(readGrain(2), "VMDK grain table entry points past the end of the extent file.", codeCorrupt);
    }
}

TEST_P(SparseExtentHostileTest, corruptCompressedGrainIsRefused)
{
    create(compressedKind);
    long long pos, slot;
    {
        zu::P<kord::CVMDKSparseExtentFile> extent = open();
        Bytes data = kordtest::compressible(grainBytes, 1);
        extent->write(data.data(), static_cast<int>(grainBytes));
        extent->flushChanges();
        extent->getGrainInfo(0, pos, slot);
    }
    const Bytes written = image();
    const std::string badSize = "Error reading compressed data from VMDK. Invalid compressed grain size.";
    struct Case {
        const char* name;
        long long offset;
        Bytes value;
        std::string message;
    };
    for (const Case& c : std::vector<Case>{
             {"sizeZero", 8, le32(0), badSize},
             {"sizeNegative", 8, le32(0xFFFFFFFF), badSize},
             {"sizeOverTwoGrains", 8, le32(static_cast<unsigned>(2 * grainBytes - 11)), badSize},
             {"sizePastSlot", 8, le32(static_cast<unsigned>(slot * 512 - 11)), "VMDK compressed grain runs past its slot."},
         }) {
        SCOPED_TRACE(c.name);
        kordtest::writeAll(fs, file(), written);
        kordtest::patchFile(fs, file(), pos * 512 + c.offset, c.value);
        expectFailure(readGrain(0), c.message, codeCorrupt);
    }

    kordtest::writeAll(fs, file(), written);
    kordtest::patchFile(fs, file(), pos * 512 + 12, Bytes(8, 0xFF));
    zu::CIOError e = expectFailure(readGrain(0), "Error reading compressed data from VMDK. The data cannot be "
                                                 "decompressed.", codeCorrupt);
    EXPECT_NE(nullptr, e.getCause()) << "the decompressor's error must be kept as the cause";

    // A file cut inside the grain's data.
    Bytes cut(written.begin(), written.begin() + (pos + 1) * 512);
    zu::storeLE32(&cut[pos * 512 + 8], 1000);
    kordtest::writeAll(fs, file(), cut);
    kordtest::LogCapture log; // the trail is missing too
    expectFailure(readGrain(0), "VMDK compressed grain runs past the end of the extent file.", codeCorrupt);
}

TEST_P(SparseExtentHostileTest, filesOfOurLayoutsAllOpen)
{
    struct Geometry {
        long long grains, grainSectors;
    };
    for (const kordtest::ExtentKind& kind : kordtest::allExtentKinds()) {
        for (Geometry g : {Geometry{1, 1}, Geometry{513, 128}, Geometry{3, 2048}}) {
            for (bool withDescriptor : {true, false}) {
                SCOPED_TRACE(std::string(kind.name) + " " + std::to_string(g.grains) + "x" +
                             std::to_string(g.grainSectors) + (withDescriptor ? " with descriptor" : ""));
                fs->deleteFile(file(), true);
                zu::TBuffer<unsigned char> keyHash;
                zu::TCryptBuffer<unsigned char> key = kordtest::testKey();
                if (kind.encrypted) keyHash = pell::CDigestType_SHA256::hash(key.getData(), key.getUsed());
                zu::P<kord::CVMDKDescriptor> descriptor = kordtest::selfDescriptor("monolithicSparse", 1, "x");
                kord::createEmptyVMDKSparseExtentFile(fs, file(), kind.streamOptimized, g.grains, g.grainSectors,
                                                      kordtest::zeroBuffer(), withDescriptor ? descriptor.get() : nullptr,
                                                      withDescriptor ? kordtest::descriptorSectors : 0, keyHash);
                kordtest::ExtentSetup setup;
                setup.encrypted = kind.encrypted;
                setup.updater = zu::newObj<kord::CVMDKContentIDUpdater>(fs, file(), descriptor);
                setup.updater->setContentIDUpdatesEnabled(withDescriptor);
                const long long last = g.grains * g.grainSectors * 512 - 1;
                unsigned char byte = 0x5C;
                {
                    zu::P<kord::CVMDKSparseExtentFile> extent = setup.open(fs, file());
                    extent->seek(last);
                    extent->write(&byte, 1);
                }
                setup.access = zu::IIOStream::accessRead;
                zu::P<kord::CVMDKSparseExtentFile> extent = setup.open(fs, file());
                extent->seek(last);
                byte = 0;
                extent->read(&byte, 1);
                EXPECT_EQ(0x5C, byte);
            }
        }
    }
}

TEST_P(SparseExtentHostileTest, monolithicSparseFileOfQemuImgOpens)
{
    if (GetParam() != kordtest::FsKind::local) GTEST_SKIP() << "qemu-img works on local files";
    if (!kordtest::haveTool("qemu-img")) GTEST_SKIP() << "qemu-img is not installed (package qemu-utils)";
    std::string out;
    ASSERT_EQ(0, kordtest::runCommand("qemu-img create -f vmdk '" + temp->file("extent.vmdk") + "' 100M", &out)) << out;
    Bytes data = kordtest::pattern(3 * 65536 + 1000, 4);
    {
        zu::P<kord::CVMDKSparseExtentFile> extent = open();
        extent->seek(50 * 65536 - 500);
        extent->write(data.data(), static_cast<int>(data.size()));
    }
    zu::P<kord::CVMDKSparseExtentFile> extent = open();
    Bytes back(data.size());
    extent->seek(50 * 65536 - 500);
    extent->read(back.data(), static_cast<int>(back.size()));
    EXPECT_EQ(data, back);
    EXPECT_EQ(0, kordtest::runCommand("qemu-img check '" + temp->file("extent.vmdk") + "'", &out)) << out;
}

KORD_INSTANTIATE_FS(SparseExtentHostileTest);
