// The checker finds each kind of damage in a freshly made disk patched to
// have exactly that damage, and throws (instead of reporting) what keeps it
// from checking. That it finds nothing in the disks kord and qemu-img make
// is checked with the disk matrix and interop tests.
#include "DiskTestUtil.h"

#include "common/ExtentTestUtil.h"

namespace {

using namespace disktest;
using kord::CVMDKChecker;
using kordtest::le32;
using kordtest::le64;

constexpr long long capacitySectors = 1024 * grainSectors; // two grain tables

class CheckerTest : public kordtest::FileSystemTest {
protected:
    zu::P<CVMDKDisk> create(const std::string& name, const std::string& type, const std::string& pass = "",
                            const std::string& parent = "", long long sectors = capacitySectors)
    {
        const zu::CURI parentURI = parent.empty() ? zu::CURI() : uri(parent);
        return CVMDKDisk::create(fs, uri(name), params(type, parent.empty() ? sectors : 0, pass, parentURI));
    }

    // A disk with data in grains 0 and 1 (incompressible) and 700 (in the
    // second grain table), closed again.
    void makeWritten(const std::string& name, const std::string& type, const std::string& pass = "",
                     const std::string& parent = "")
    {
        zu::P<CVMDKDisk> disk = create(name, type, pass, parent);
        writeAt(*disk, 0, kordtest::pattern(2 * grainBytes, 1));
        disk->flushChanges();
        writeAt(*disk, 700 * grainBytes + 100, Bytes(5000, 7));
        disk->flushChanges();
    }

    std::vector<CVMDKChecker::CFinding> check(const std::string& name, const std::string& pass = "")
    {
        return CVMDKChecker(fs, uri(name), zu::String(pass)).check();
    }
    void patch(const std::string& name, long long offset, const Bytes& bytes)
    {
        kordtest::patchFile(fs, uri(name), offset, bytes);
    }

    zu::P<kord::CVMDKSparseExtentFile> extent(const std::string& name) { return inspectExtent(fs, uri(name)); }
    long long grainPos(const std::string& name, long long grain) { return kordtest::grainPos(*extent(name), grain); }
    // The sector of the first grain table, from the primary directory.
    unsigned firstTable(const std::string& name) { return extent(name)->getGrainDirectory()->getEntries()[0]; }

};

TEST_P(CheckerTest, findsEachKindOfDamage)
{
    // A disk of `type` is made and written first, unless the case makes its
    // own; the checker must report exactly one finding of `kind`, with the
    // message and properties where the case gives them.
    struct Damage {
        std::string name, type;
        std::function<void(const std::string&)> damage;
        std::string kind, message = "";
        std::vector<std::pair<std::string, std::string>> props = {};
    };
    const std::string sparse = "monolithicSparse";
    const std::string stream = "streamOptimized";
    const long long small = capacitySectors - grainSectors;
    const std::vector<Damage> damages = {
        {"unclean", sparse, [&](auto& n) { patch(n, 72, {1}); }, "uncleanShutdown"},
        {"capacity", sparse, [&](auto& n) { patch(n, 12, le64(small)); }, "capacityTooSmall",
         "VMDK extent file is smaller than its extent line.", {{"capacity", std::to_string(small)}}},
        // The end-of-stream marker's type.
        {"trail", stream, [&](auto& n) { patch(n, fs->getFileSize(uri(n)) - 512 + 12, le32(5)); }, "damagedTrail"},
        {"version", sparse, [&](auto& n) { patch(n, 4, le32(9)); }, "refused",
         "VMDK file has an unsupported version: 9"},
        // The second extent of a split disk: the first is still checked.
        {"split", "",
         [&](auto& n) {
             create(n, "twoGbMaxExtentSparse", "", "", splitSectors + 4 * grainSectors);
             patch("split-s002.vmdk", 0, le32(0x12345678));
         },
         "refused", "Invalid magic number in VMDK sparse header",
         {{"uri", uri("split-s002.vmdk").toNormalized().toString(true).toUTF8()}}},
        {"metadata", sparse, [&](auto& n) { patchGrainEntry(fs, uri(n), 1, 2); }, "grainInMetadata"},
        {"end", sparse, [&](auto& n) { patchGrainEntry(fs, uri(n), 1, fs->getFileSize(uri(n)) / 512 - 1); }, "grainPastEnd"},
        {"overlap", sparse, [&](auto& n) { patchGrainEntry(fs, uri(n), 1, grainPos(n, 0) + 1); }, "grainsOverlap"},
        {"copy", sparse, [&](auto& n) { patchGrainEntry(fs, uri(n), 700, 0, false); }, "directoriesDisagree", "",
         {{"grainIndex", "700"}, {"differingEntries", "1"}}},
        {"directory", sparse, [&](auto& n) { patch(n, extent(n)->getHeader().rgdOffset * 512, le32(firstTable(n))); },
         "tablesOverlap"},
        // Empty tables, so that sharing one changes no grain.
        {"tables", "",
         [&](auto& n) {
             create(n, sparse);
             patch(n, extent(n)->getHeader().gdOffset * 512 + 4, le32(firstTable(n)));
         },
         "tablesOverlap"},
        {"lba", stream, [&](auto& n) { patch(n, grainPos(n, 1) * 512, le64(12345)); }, "grainLBAMismatch", "",
         {{"expectedLBA", std::to_string(grainSectors)}}},
        {"size", stream, [&](auto& n) { patch(n, grainPos(n, 700) * 512 + 8, le32(0xFFFFFFF0u)); }, "badGrainHeader"},
        // Grain 1's entry in the slot size table: 2 sectors.
        {"slot", stream,
         [&](auto& n) { patch(n, extent(n)->getGrainDirectory()->getSlotSizeDirectory()[0] * 512 + 2, {2, 0}); },
         "slotTooSmall"},
        {"child", "",
         [&](auto& n) {
             makeWritten("parent.vmdk", sparse);
             makeWritten(n, sparse, "", "parent.vmdk");
             writeAt(*openDisk(fs, uri("parent.vmdk"), RW), 0, Bytes(10, 9));
         },
         "parentChanged"}};
    for (const Damage& d : damages) {
        const std::string name = d.name + ".vmdk";
        if (!d.type.empty()) makeWritten(name, d.type);
        d.damage(name);
        const std::vector<CVMDKChecker::CFinding> findings = check(name);
        ASSERT_EQ(1u, findings.size()) << d.name;
        EXPECT_EQ(d.kind, CVMDKChecker::getKindName(findings[0].kind)) << d.name;
        const std::string message = findings[0].message.toUTF8();
        EXPECT_FALSE(message.empty()) << d.name;
        EXPECT_EQ(d.message.empty() ? message : d.message, message);
        for (const auto& [key, value] : d.props) {
            const zu::String& actual = key == "uri" ? findings[0].uri.toString(true) : findings[0].props.get(key);
            EXPECT_EQ(value, actual.toUTF8()) << d.name << " " << key;
        }
    }
}

// Disks written by every kind of workload are found clean by the disk
// matrix and the fault sweep (split disks whose next extent is made on
// demand included); an empty one here.
TEST_P(CheckerTest, emptyDiskIsCleanAndWhatStopsTheCheckIsThrown)
{
    create("empty.vmdk", "streamOptimized");
    EXPECT_TRUE(check("empty.vmdk").empty());
    kordtest::expectThrows<zu::CFileSystemError>([&] { check("missing.vmdk"); });
    makeWritten("enc.vmdk", "monolithicSparse", "right");
    EXPECT_EQ("Specified VMDK encryption password is not correct.",
              kordtest::msg(kordtest::expectThrows([&] { check("enc.vmdk", "wrong"); })));
    zu::P<CVMDKDisk> writer = openDisk(fs, uri("enc.vmdk"), RW, "right");
    kordtest::expectThrows<zu::CLockFileError>([&] { check("enc.vmdk", "right"); });
}

KORD_INSTANTIATE_FS(CheckerTest);

} // namespace
