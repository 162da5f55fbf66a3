// The checker finds each kind of damage in a freshly made disk patched to
// have exactly that damage, finds nothing in the disks kord and qemu-img
// make, and throws (instead of reporting) what keeps it from checking.
#include "common/TestUtil.h"

#include "disk/CVMDKChecker.h"
#include "format/CVMDKLowLevelFileStream.h"

namespace {

using kord::CVMDKChecker;
using kord::CVMDKDisk;
using Bytes = std::vector<unsigned char>;

constexpr long long grainBytes = 64 * 1024;
constexpr long long grainSectors = grainBytes / 512;
constexpr long long capacitySectors = 1024 * grainSectors; // two grain tables

class CheckerTest : public kordtest::FileSystemTest {
protected:
    zu::P<CVMDKDisk> create(const std::string& name, const std::string& type, const std::string& password = "",
                            const std::string& parent = "", long long sectors = capacitySectors, bool onDemand = false)
    {
        CVMDKDisk::CCreateParams params;
        params.createType = zu::String(type);
        params.capacitySectors = parent.empty() ? sectors : 0;
        params.password = zu::String(password);
        if (!parent.empty()) params.parentURI = uri(parent);
        params.createExtentFilesOnDemand = onDemand;
        return CVMDKDisk::create(fs, uri(name), params);
    }

    // A disk with data in grains 0 and 1 (incompressible) and 700 (in the
    // second grain table), closed again.
    void makeWritten(const std::string& name, const std::string& type, const std::string& password = "",
                     const std::string& parent = "")
    {
        zu::P<CVMDKDisk> disk = create(name, type, password, parent);
        write(*disk, 0, kordtest::pattern(2 * grainBytes, 1));
        write(*disk, 700 * grainBytes + 100, Bytes(5000, 7));
    }

    static void write(CVMDKDisk& disk, long long position, const Bytes& data)
    {
        disk.seek(position);
        disk.write(data.data(), static_cast<int>(data.size()));
        disk.flushChanges();
    }

    std::vector<CVMDKChecker::CFinding> check(const std::string& name, const std::string& password = "")
    {
        CVMDKChecker checker(fs, uri(name), zu::String(password));
        return checker.check();
    }

    // The kinds found, by name, for readable failures.
    std::vector<std::string> kinds(const std::string& name, const std::string& password = "")
    {
        std::vector<std::string> out;
        for (const auto& finding : check(name, password)) {
            out.push_back(CVMDKChecker::getKindName(finding.kind));
            EXPECT_FALSE(finding.message.empty());
        }
        return out;
    }

    // The extent read through the library, to find where to patch.
    zu::P<kord::CVMDKSparseExtentFile> extent(const std::string& name)
    {
        zu::P<zu::IIOStream> stream = kord::openVMDKFileStream(fs, uri(name), zu::IIOStream::accessRead);
        return zu::newObj<kord::CVMDKSparseExtentFile>(stream, zu::IIOStream::accessRead, 0, -1, cache, nullptr,
                                                       nullptr, nullptr, zu::TCryptBuffer<unsigned char>(),
                                                       zu::TBuffer<unsigned char>());
    }

    long long grainPos(const std::string& name, long long grain)
    {
        long long pos = 0, slot = 0;
        extent(name)->getGrainInfo(grain, pos, slot);
        return pos;
    }

    // Points a grain's entry elsewhere in the grain table and in its copy.
    void patchGrainEntry(const std::string& name, long long grain, unsigned posSectors, bool bothCopies = true)
    {
        zu::P<kord::CVMDKSparseExtentFile> e = extent(name);
        long long table = grain / 512;
        long long offset = grain % 512 * 4;
        kordtest::patchFile(fs, uri(name), e->getGrainDirectory()->getRedundantEntries()[table] * 512LL + offset,
                            kordtest::le32(posSectors));
        if (bothCopies)
            kordtest::patchFile(fs, uri(name), e->getGrainDirectory()->getEntries()[table] * 512LL + offset,
                                kordtest::le32(posSectors));
    }

    zu::P<kord::CVMDKGrainTableCache> cache = zu::newObj<kord::CVMDKGrainTableCache>(1024);
};

using Kinds = std::vector<std::string>;

TEST_P(CheckerTest, noFindingsOnEveryKindOfDiskKordMakes)
{
    for (const char* type : {"monolithicSparse", "twoGbMaxExtentSparse", "streamOptimized"}) {
        for (const char* password : {"", "secret"}) {
            std::string name = std::string(type) + (*password ? "-enc" : "") + ".vmdk";
            makeWritten(name, type, password);
            EXPECT_EQ(Kinds(), kinds(name, password)) << name;
            makeWritten("delta-" + name, type, password, name);
            EXPECT_EQ(Kinds(), kinds("delta-" + name, password)) << name;
        }
    }
    // Two split extents, the second made on demand; and an empty disk.
    zu::P<CVMDKDisk> split = create("split.vmdk", "twoGbMaxExtentSparse", "", "",
                                    CVMDKDisk::maxSplitExtentSectors + 4 * grainSectors, true);
    write(*split, CVMDKDisk::maxSplitExtentSectors * 512 + 10, Bytes(100, 1));
    split = nullptr;
    EXPECT_EQ(Kinds(), kinds("split.vmdk"));
    create("empty.vmdk", "streamOptimized");
    EXPECT_EQ(Kinds(), kinds("empty.vmdk"));
}

TEST_P(CheckerTest, headerDamage)
{
    makeWritten("unclean.vmdk", "monolithicSparse");
    kordtest::patchFile(fs, uri("unclean.vmdk"), 72, {1});
    EXPECT_EQ(Kinds{"uncleanShutdown"}, kinds("unclean.vmdk"));

    makeWritten("small.vmdk", "monolithicSparse");
    kordtest::patchFile(fs, uri("small.vmdk"), 12, kordtest::le64(capacitySectors - grainSectors));
    auto findings = check("small.vmdk");
    ASSERT_EQ(1u, findings.size());
    EXPECT_EQ(CVMDKChecker::kindCapacityTooSmall, findings[0].kind);
    EXPECT_EQ(zu::String("VMDK extent file is smaller than its extent line."), findings[0].message);
    EXPECT_EQ(zu::toString(capacitySectors - grainSectors), findings[0].props.get("capacity"));

    makeWritten("trail.vmdk", "streamOptimized");
    long long size = fs->getFileSize(uri("trail.vmdk"));
    kordtest::patchFile(fs, uri("trail.vmdk"), size - 512 + 12, kordtest::le32(5)); // end-of-stream marker's type
    EXPECT_EQ(Kinds{"damagedTrail"}, kinds("trail.vmdk"));
}

TEST_P(CheckerTest, extentsTheLibraryRefusesAreFindings)
{
    makeWritten("version.vmdk", "monolithicSparse");
    kordtest::patchFile(fs, uri("version.vmdk"), 4, kordtest::le32(9));
    auto findings = check("version.vmdk");
    ASSERT_EQ(1u, findings.size());
    EXPECT_EQ(CVMDKChecker::kindRefused, findings[0].kind);
    EXPECT_EQ(zu::String("VMDK file has an unsupported version: 9"), findings[0].message);

    // The second extent of a split disk: the first is still checked.
    zu::P<CVMDKDisk> split = create("split.vmdk", "twoGbMaxExtentSparse", "", "",
                                    CVMDKDisk::maxSplitExtentSectors + 4 * grainSectors);
    split = nullptr;
    kordtest::patchFile(fs, uri("split-s002.vmdk"), 0, kordtest::le32(0x12345678));
    findings = check("split.vmdk");
    ASSERT_EQ(1u, findings.size());
    EXPECT_EQ(CVMDKChecker::kindRefused, findings[0].kind);
    EXPECT_EQ(uri("split-s002.vmdk").toNormalized(), findings[0].uri);
    EXPECT_EQ(zu::String("Invalid magic number in VMDK sparse header"), findings[0].message);
}

TEST_P(CheckerTest, grainEntryDamage)
{
    makeWritten("metadata.vmdk", "monolithicSparse");
    patchGrainEntry("metadata.vmdk", 1, 2);
    EXPECT_EQ(Kinds{"grainInMetadata"}, kinds("metadata.vmdk"));

    makeWritten("end.vmdk", "monolithicSparse");
    patchGrainEntry("end.vmdk", 1, static_cast<unsigned>(fs->getFileSize(uri("end.vmdk")) / 512 - 1));
    EXPECT_EQ(Kinds{"grainPastEnd"}, kinds("end.vmdk"));

    makeWritten("overlap.vmdk", "monolithicSparse");
    patchGrainEntry("overlap.vmdk", 1, static_cast<unsigned>(grainPos("overlap.vmdk", 0) + 1));
    EXPECT_EQ(Kinds{"grainsOverlap"}, kinds("overlap.vmdk"));

    makeWritten("copy.vmdk", "monolithicSparse");
    patchGrainEntry("copy.vmdk", 700, 0, false); // the redundant copy only
    auto findings = check("copy.vmdk");
    ASSERT_EQ(1u, findings.size());
    EXPECT_EQ(CVMDKChecker::kindDirectoriesDisagree, findings[0].kind);
    EXPECT_EQ("700", findings[0].props.get("grainIndex").toUTF8());
    EXPECT_EQ("1", findings[0].props.get("differingEntries").toUTF8());
}

TEST_P(CheckerTest, directoryDamage)
{
    makeWritten("same.vmdk", "monolithicSparse");
    unsigned primary = extent("same.vmdk")->getGrainDirectory()->getEntries()[0];
    kordtest::patchFile(fs, uri("same.vmdk"), extent("same.vmdk")->getHeader().rgdOffset * 512, kordtest::le32(primary));
    EXPECT_EQ(Kinds{"directoriesDisagree"}, kinds("same.vmdk"));

    // Empty tables, so that sharing one changes no grain.
    create("tables.vmdk", "monolithicSparse");
    unsigned first = extent("tables.vmdk")->getGrainDirectory()->getEntries()[0];
    kordtest::patchFile(fs, uri("tables.vmdk"), extent("tables.vmdk")->getHeader().gdOffset * 512 + 4,
                        kordtest::le32(first));
    EXPECT_EQ(Kinds{"tablesOverlap"}, kinds("tables.vmdk"));
}

TEST_P(CheckerTest, compressedGrainDamage)
{
    makeWritten("lba.vmdk", "streamOptimized");
    kordtest::patchFile(fs, uri("lba.vmdk"), grainPos("lba.vmdk", 1) * 512, kordtest::le64(12345));
    auto findings = check("lba.vmdk");
    ASSERT_EQ(1u, findings.size());
    EXPECT_EQ(CVMDKChecker::kindBadGrainHeader, findings[0].kind);
    EXPECT_EQ(zu::toString(grainSectors), findings[0].props.get("expectedLBA"));

    makeWritten("size.vmdk", "streamOptimized");
    kordtest::patchFile(fs, uri("size.vmdk"), grainPos("size.vmdk", 700) * 512 + 8, kordtest::le32(0xFFFFFFF0u));
    EXPECT_EQ(Kinds{"badGrainHeader"}, kinds("size.vmdk"));

    makeWritten("slot.vmdk", "streamOptimized");
    zu::P<kord::CVMDKSparseExtentFile> e = extent("slot.vmdk");
    long long slotTable = e->getGrainDirectory()->getSlotSizeDirectory()[0];
    kordtest::patchFile(fs, uri("slot.vmdk"), slotTable * 512 + 2 * 1, {2, 0}); // grain 1: 2 sectors
    EXPECT_EQ(Kinds{"slotTooSmall"}, kinds("slot.vmdk"));
}

TEST_P(CheckerTest, parentChangedSinceDeltaWasMade)
{
    makeWritten("parent.vmdk", "monolithicSparse");
    makeWritten("child.vmdk", "monolithicSparse", "", "parent.vmdk");
    zu::P<CVMDKDisk> parent = zu::newObj<CVMDKDisk>(fs, uri("parent.vmdk"), zu::IIOStream::accessReadWrite,
                                                    zu::String(), -1, nullptr, nullptr);
    write(*parent, 0, Bytes(10, 9));
    parent = nullptr;
    EXPECT_EQ(Kinds{"parentChanged"}, kinds("child.vmdk"));
}

TEST_P(CheckerTest, whatStopsTheCheckIsThrown)
{
    kordtest::expectThrows<zu::CFileSystemError>([&] { check("missing.vmdk"); });
    makeWritten("enc.vmdk", "monolithicSparse", "right");
    zu::CError wrong = kordtest::expectThrows([&] { check("enc.vmdk", "wrong"); });
    EXPECT_EQ("Specified VMDK encryption password is not correct.", kordtest::msg(wrong));
    zu::P<CVMDKDisk> writer = zu::newObj<CVMDKDisk>(fs, uri("enc.vmdk"), zu::IIOStream::accessReadWrite,
                                                    zu::String("right"), -1, nullptr, nullptr);
    kordtest::expectThrows<zu::CLockFileError>([&] { check("enc.vmdk", "right"); });
}

KORD_INSTANTIATE_FS(CheckerTest);

// Disks qemu-img makes, with data in them, are clean too.
TEST(CheckerQemuTest, noFindingsOnQemuMadeDisks)
{
    if (!kordtest::haveTool("qemu-img")) GTEST_SKIP() << "qemu-img is not installed (package qemu-utils)";
    kordtest::TempDir temp;
    Bytes data(4 << 20);
    Bytes random = kordtest::pattern(300000, 3);
    std::copy(random.begin(), random.end(), data.begin() + 1000000);
    zu::P<zu::IFileSystem> fs = zu::newObj<zu::CLocalFileSystem>();
    kordtest::writeAll(fs, zu::CLocalFileSystem::pathToURI(zu::String(temp.file("data.raw"))), data);
    for (const char* subformat : {"monolithicSparse", "twoGbMaxExtentSparse"}) {
        std::string disk = temp.file(std::string(subformat) + ".vmdk");
        std::string out;
        ASSERT_EQ(0, kordtest::runCommand("qemu-img convert -f raw -O vmdk -o subformat=" + std::string(subformat) +
                                              " '" + temp.file("data.raw") + "' '" + disk + "'",
                                          &out))
            << out;
        CVMDKChecker checker(fs, zu::CLocalFileSystem::pathToURI(zu::String(disk)), zu::String());
        EXPECT_TRUE(checker.check().empty()) << subformat;
    }
}

} // namespace
