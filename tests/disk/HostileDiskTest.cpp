// Damaged and hostile disks, each made by patching a fresh disk: what a user
// does with them (info, reading every grain, writing) either is refused
// with the named damage and leaves every file as it was, or goes on and
// changes no byte of the disk outside what was written. And the checker
// finds damage exactly where the library refuses (or fails the same way
// itself, for what keeps it from checking at all), naming each kind of
// damage it knows with exactly one finding.
#include "DiskTestUtil.h"

#include "common/ExtentTestUtil.h"

#include <sys/stat.h>

#include <filesystem>

using namespace disktest;
using kord::CVMDKChecker;
using kord::CVMDKProblem;
using kordtest::le32;
using kordtest::le64;

namespace {

constexpr long long capacitySectors = 1024 * grainSectors; // two grain tables

// Damage the library tolerates (and repairs or ignores when it writes).
bool isAdvisory(CVMDKProblem::Kind kind)
{
    return kind == CVMDKProblem::kindUncleanShutdown || kind == CVMDKProblem::kindDamagedTrail ||
           kind == CVMDKProblem::kindDirectoriesDisagree || kind == CVMDKProblem::kindGrainLBAMismatch;
}

class HostileDiskTest : public DiskFolderTest {
protected:
    void editFile(const std::string& name, const std::function<void(Bytes&)>& edit)
    {
        Bytes f = kordtest::readAll(fs, uri(name));
        edit(f);
        kordtest::writeAll(fs, uri(name), f);
    }
    void patch(const std::string& name, long long offset, const Bytes& bytes) { kordtest::patchFile(fs, uri(name), offset, bytes); }
    zu::P<kord::CVMDKSparseExtentFile> extent(const std::string& name) { return inspectExtent(fs, uri(name)); }

    // A disk with data in grains 0 and 1 (incompressible) and 700.
    void make(const std::string& type, long long sectors = capacitySectors, const std::string& parent = "")
    {
        zu::P<CVMDKDisk> disk = create("d.vmdk", type, parent.empty() ? sectors : 0, "", parent);
        mirror = std::make_unique<Mirror>(disk->getDiskSizeBytes());
        put(*disk, 0, kordtest::pattern(2 * grainBytes, 1));
        put(*disk, 700 * grainBytes + 100, Bytes(5000, 7));
    }
    void put(CVMDKDisk& disk, long long pos, const Bytes& data) { writeAt(disk, pos, data), mirror->write(pos, data); }

    // The grains a user's reading meets damage in: the written ones, one
    // never written, and the disk's last.
    void readEverything(CVMDKDisk& disk)
    {
        long long last = (disk.getDiskSizeBytes() - 1) / grainBytes;
        for (long long g : {0LL, 1LL, 2LL, 700LL, last})
            if (g <= last) readAt(disk, g * grainBytes, std::min(grainBytes, disk.getDiskSizeBytes() - g * grainBytes));
    }

    // The disk's last bytes (in the last extent), a change inside a written
    // grain, and a new grain.
    void writeSome(CVMDKDisk& disk)
    {
        put(disk, disk.getDiskSizeBytes() - 100, Bytes(100, 0xAF));
        put(disk, 1000, Bytes(100, 0xA0));
        put(disk, 2 * grainBytes + 50, Bytes(100, 0xA2));
        disk.flushChanges();
    }

    std::unique_ptr<Mirror> mirror;
};

struct Recipe {
    std::string name;
    // The damage, done to a fresh disk "d.vmdk".
    std::function<void()> damage;
    // The refusal of writing; with `writes`, that of info or reading.
    std::string refusal;
    // The checker's finding (with its properties), where the damage has a
    // kind of its own; a refusal the checker names "refused" is reported
    // with the library's message.
    std::string kind = "";
    std::vector<std::pair<std::string, std::string>> props = {};
    // Writing goes on (the damage is where writing does not go).
    bool writes = false;
    // A grain that cannot be read back.
    long long damagedGrain = -1;
};

} // namespace

TEST_F(HostileDiskTest, refusedWhereDamagedAndCheckAgrees)
{
    const std::string d = "d.vmdk", s2 = "d-s002.vmdk";
    const std::string sparse = "monolithicSparse", stream = "streamOptimized", split = "twoGbMaxExtentSparse";
    const long long splitCapacity = splitSectors + 4 * grainSectors;
    const std::string overlap = "VMDK metadata overlaps in the extent file: ";
    auto descriptorLines = [&](const std::string& lines) {
        make(split, splitCapacity);
        putFile(path(d), fileText(path(d)).substr(0, fileText(path(d)).find('\0')) + lines);
    };
    auto header = [&] { return extent(d)->getHeader(); };
    auto table0 = [&] { return extent(d)->getGrainDirectory()->getEntries()[0]; };
    auto grainSector = [&](long long grain) { return kordtest::grainPos(*extent(d), grain); };
    const std::vector<Recipe> recipes = {
        // Bytes inserted before an intact trail: that trail is off the
        // sectors grain entries can name, so it is kept like foreign bytes
        // and new grains go behind it, on whole sectors.
        {"partialSector", [&] { make(stream), editFile(d, [](Bytes& f) { f.insert(f.end() - 3 * sector, 100, 0x55); }); },
         "", "", {}, true},
        // A trail found inside the metadata: new grains still go behind it.
        {"trailInMetadata",
         [&] {
             create(d, stream, capacitySectors);
             mirror = std::make_unique<Mirror>(capacitySectors * sector);
             const long long grainArea = extent(d)->getHeader().overHead * sector;
             editFile(d, [&](Bytes& f) {
                 Bytes trail(f.end() - 3 * sector, f.end());
                 f.resize(grainArea + sector);
                 std::copy(trail.begin(), trail.end(), f.end() - 3 * sector);
             });
         },
         "", "", {}, true},
        // A grain that starts in the file's last sector.
        {"grainPastEnd", [&] { make(sparse), patchGrainEntry(fs, uri(d), 1, fs->getFileSize(uri(d)) / sector - 1); },
         "VMDK grain table entry points past the end of the extent file.", "grainPastEnd"},
        {"grainInMetadata", [&] { make(sparse), patchGrainEntry(fs, uri(d), 1, 2); },
         "VMDK grain table entry points into the metadata.", "grainInMetadata"},
        {"redundantEntryIsPrimaryTable", [&] { make(sparse), patch(d, header().rgdOffset * sector, le32(table0())); },
         overlap + "grain table 0 and redundant grain table 0.", "tablesOverlap"},
        {"tableAtRedundantDirectory",
         [&] { make(sparse), patch(d, header().gdOffset * sector, le32(static_cast<unsigned>(header().rgdOffset))); },
         overlap + "the redundant grain directory and grain table 0."},
        {"grainsOverlap", [&] { make(sparse), patchGrainEntry(fs, uri(d), 1, kordtest::grainPos(*extent(d), 0) + 1); },
         "VMDK grains overlap in the extent file.", "grainsOverlap"},
        {"compressedSlotZero",
         [&] { make(stream), patch(d, extent(d)->getGrainDirectory()->getSlotSizeDirectory()[0] * sector + 2, {0, 0}); },
         "VMDK grain table entry has a slot too small for its grain.", "slotTooSmall"},
        {"compressedDataGarbage", [&] { make(stream), patch(d, grainSector(1) * sector + 20, Bytes(64, 0xFF)); },
         "Error reading compressed data from VMDK. The data cannot be decompressed.", "", {}, true, 1},
        {"grainHeaderSize", [&] { make(stream), patch(d, grainSector(700) * sector + 8, le32(0xFFFFFFF0u)); },
         "Error reading compressed data from VMDK. Invalid compressed grain size.", "badGrainHeader", {}, true, 700},
        {"capacityTooSmall", [&] { make(sparse), patch(d, 12, le64(capacitySectors - grainSectors)); },
         "VMDK extent file is smaller than its extent line.", "capacityTooSmall",
         {{"capacity", std::to_string(capacitySectors - grainSectors)}}},
        // The second extent of a split disk: the first is still checked.
        {"secondExtentMagic", [&] { make(split, splitCapacity), patch(s2, 0, le32(0x12345678)); },
         "Invalid magic number in VMDK sparse header", "refused",
         {{"uri", uri(s2).toNormalized().toString(true).toUTF8()}}},
        {"parentChanged",
         [&] {
             create("p.vmdk", sparse, capacitySectors);
             make(sparse, 0, "p.vmdk"), writeAt(*open("p.vmdk", RW), 0, Bytes(10, 9));
         },
         "VMDK parent disk has changed, but a child disk depended on it.", "parentChanged"},
        {"symlinkedExtent",
         [&] { make(split, splitCapacity), std::filesystem::remove(path(s2)), std::filesystem::create_symlink(path("d-s001.vmdk"), path(s2)); },
         "VMDK disk names the same extent file twice."},
        {"otherGrainSize", [&] { make(split, splitCapacity), patch(s2, kordtest::hdr::grainSize, le64(64)); },
         "VMDK extent file has another grain size than the disk's first extent."},
        {"onDemandOutsideFolder",
         [&] {
             CVMDKDisk::CCreateParams p = params(split, splitCapacity);
             p.createExtentFilesOnDemand = true;
             CVMDKDisk::create(fs, uri(d), p);
             mirror = std::make_unique<Mirror>(splitCapacity * sector);
             putFile(path(d), replaced(fileText(path(d)), "\"d-s002.vmdk\"", "\"../elsewhere/d-s002.vmdk\""));
         },
         "VMDK extent file to be created on demand lies outside the disk's folder."},
        {"fifoExtent", [&] { make(split, splitCapacity), std::filesystem::remove(path(s2)), ::mkfifo(path(s2).c_str(), 0600); },
         "Cannot open the file: it is a FIFO, not a regular file."},
        {"descriptorBadBoolean", [&] { descriptorLines("zuCreateExtentFilesOnDemand=\"maybe\"\n"); },
         "VMDK descriptor value 'zuCreateExtentFilesOnDemand' is not a boolean: 'maybe'."},
        {"descriptorTooBig", [&] { descriptorLines("#" + std::string(1 << 20, '-') + "\n"); },
         "VMDK descriptor text is too big (more than 1048576 bytes)."},
        // A full descriptor area without the encoding line that every
        // store writes: the first write's descriptor cannot fit.
        {"embeddedDescriptorFull",
         [&] {
             make(sparse);
             editFile(d, [](Bytes& f) {
                 std::string text(f.begin() + sector, f.begin() + 21 * sector);
                 text = text.substr(0, text.find('\0'));
                 const size_t encoding = text.find("encoding=");
                 text.erase(encoding, text.find('\n', encoding) + 1 - encoding);
                 text += "#" + std::string(sector - text.size() - 2, '-') + "\n";
                 std::copy(text.begin(), text.end(), f.begin() + sector);
             });
             patch(d, kordtest::hdr::descriptorSize, le64(1));
         },
         "VMDK descriptor is larger than the room for it in the file (descriptor size: "},
        // Damage the library lives with.
        {"tableCopyDiffers", [&] { make(sparse), patchGrainEntry(fs, uri(d), 700, 0, false); }, "",
         "directoriesDisagree", {{"grainIndex", "700"}, {"differingEntries", "1"}}, true},
        {"unclean", [&] { make(sparse), patch(d, kordtest::hdr::uncleanShutdown, {1}); }, "", "uncleanShutdown", {}, true},
        // The end-of-stream marker's type.
        {"trail", [&] { make(stream), patch(d, fs->getFileSize(uri(d)) - 512 + 12, le32(5)); }, "", "damagedTrail", {}, true},
        {"grainLBA", [&] { make(stream), patch(d, grainSector(1) * sector, le64(12345)); }, "", "grainLBAMismatch",
         {{"expectedLBA", std::to_string(grainSectors)}}, true},
    };
    for (const Recipe& r : recipes) {
        SCOPED_TRACE(r.name);
        for (const auto& entry : std::filesystem::directory_iterator(temp.path())) std::filesystem::remove_all(entry);
        r.damage();
        const auto before = snapshot(temp.path());
        std::vector<CVMDKChecker::CFinding> findings;
        const std::string check = outcome([&] { findings = CVMDKChecker(fs, uri(d), zu::String()).check(); });

        const std::string info = outcome([&] { openDisk(fs, uri(d), R)->gatherSpaceInfo(); });
        const std::string cat = outcome([&] { readEverything(*openDisk(fs, uri(d), R)); });
        const std::string write = outcome([&] { writeSome(*openDisk(fs, uri(d), RW)); });
        // The size in some messages depends on the new content ID.
        EXPECT_EQ(r.refusal, (r.writes ? info + cat : write).substr(0, r.refusal.size()));
        if (!r.writes) {
            EXPECT_TRUE(before == snapshot(temp.path())) << "a refused disk must not be changed";
        } else {
            // Every byte written reads back, and no other byte changed.
            EXPECT_EQ("", write);
            zu::P<CVMDKDisk> disk = openDisk(fs, uri(d), R);
            for (long long g : mirror->touchedGrains()) {
                long long n = std::min(grainBytes, mirror->size() - g * grainBytes);
                EXPECT_TRUE(g == r.damagedGrain || readAt(*disk, g * grainBytes, n) == mirror->read(g * grainBytes, n))
                    << "grain " << g;
            }
        }

        // The checker: a finding that the library would refuse exactly when
        // the library refuses, or the same failure; the damage by its kind.
        bool refused = !(info + cat + write).empty();
        bool found = std::any_of(findings.begin(), findings.end(), [](auto& f) { return !isAdvisory(f.kind); });
        EXPECT_EQ(refused, found || !check.empty());
        EXPECT_TRUE(check.empty() || check == info || check == cat || check == write) << check;
        if (r.kind.empty()) continue;
        ASSERT_EQ(1u, findings.size());
        const CVMDKChecker::CFinding* f = &findings[0];
        EXPECT_EQ(r.kind, CVMDKChecker::getKindName(f->kind));
        EXPECT_TRUE(r.kind != "refused" || f->message.toUTF8() == r.refusal) << f->message.toUTF8();
        for (const auto& [key, value] : r.props)
            EXPECT_EQ(value, (key == "uri" ? f->uri.toString(true) : f->props.get(key)).toUTF8()) << key;
    }
}

// What keeps the checker from checking is thrown, not reported; an empty
// disk is clean (disks written by every kind of workload are found clean by
// the disk matrix and the fault sweep).
TEST_F(HostileDiskTest, checkerThrowsWhatStopsItAndFindsAnEmptyDiskClean)
{
    create("empty.vmdk", "streamOptimized", capacitySectors);
    EXPECT_TRUE(findingKinds(fs, uri("empty.vmdk")).empty());
    kordtest::expectThrows<zu::CFileSystemError>([&] { findingKinds(fs, uri("missing.vmdk")); });
    writeAt(*create("enc.vmdk", "monolithicSparse", capacitySectors, "right"), 0, Bytes(10, 1));
    kordtest::expectError<zu::CError>([&] { findingKinds(fs, uri("enc.vmdk"), "wrong"); },
                                      "Specified VMDK encryption password is not correct.", -1);
    zu::P<CVMDKDisk> writer = open("enc.vmdk", RW, "right");
    kordtest::expectThrows<zu::CLockFileError>([&] { findingKinds(fs, uri("enc.vmdk"), "right"); });
}
