// Disks in the variants other tools make. Built here byte by byte: flat,
// ZERO, RDONLY and NOACCESS extents in one disk; a stream-optimized file
// with its directory at the end; and text descriptors that must grow.
// openAny opens them all, and the constructor keeps refusing what it
// refuses. And made by qemu-img and vmdk-convert (black boxes; those cases
// skip where they are missing): kord reads them as qemu-img does (zeroed
// grains among them), writes them where it can, and stacks its delta disks
// on them (vmdk-convert's file is its own extent, whatever its embedded
// descriptor's line names).
#include "common/Corpus.h"
#include "disk/DiskTestUtil.h"

#include <sstream>

using namespace disktest;
using kordtest::expectThrows;
using kordtest::msg;

namespace {

const auto expectError = &kordtest::expectError<zu::CError>;

class ForeignDiskTest : public testing::Test {
protected:
    std::string path(const std::string& name) const { return temp.file(name); }
    zu::CURI uri(const std::string& name) const { return fileURI(temp.file(name)); }
    zu::P<CVMDKDisk> any(const std::string& name, int access = R)
    {
        return CVMDKDisk::openAny(fs, uri(name), access, zu::String());
    }

    kordtest::TempDir temp;
    zu::P<zu::IFileSystem> fs = zu::newObj<zu::CLocalFileSystem>();
};

TEST_F(ForeignDiskTest, flatZeroAndRestrictedExtentsInOneDisk)
{
    const Bytes f1 = kordtest::pattern(1 << 20, 1), f2 = kordtest::pattern(1 << 20, 2), f3 = kordtest::pattern(3 << 20, 3);
    for (const auto& [name, bytes] : {std::pair{"f1.bin", &f1}, {"f2.bin", &f2}, {"f3.bin", &f3}})
        putFile(path(name), std::string(bytes->begin(), bytes->end()));
    const std::string lines = "RW 2048 FLAT \"f1.bin\" 0\n"
                              "RW 1000 ZERO\n"
                              "RDONLY 1024 VMFS \"f2.bin\"\n"
                              "RW 512 FLAT \"f3.bin\" 4096\n"
                              "NOACCESS 64 FLAT \"missing.bin\" 0\n";
    const std::string text = "# Disk DescriptorFile\nversion=1\nCID=12345678\nparentCID=ffffffff\n"
                             "createType=\"custom\"\n\n" + lines;
    putFile(path("c.vmdk"), text);
    // What the disk holds up to its NOACCESS extent.
    Bytes expected = f1;
    expected.insert(expected.end(), 1000 * sector, 0);
    expected.insert(expected.end(), f2.begin(), f2.begin() + 1024 * sector);
    expected.insert(expected.end(), f3.begin() + (2 << 20), f3.begin() + (2 << 20) + 512 * sector);
    const long long noAccess = (2048 + 1000 + 1024 + 512) * sector;
    {
        zu::P<CVMDKDisk> disk = any("c.vmdk", RW);
        EXPECT_EQ(noAccess + 64 * sector, disk->getDiskSizeBytes());
        EXPECT_TRUE(readAt(*disk, 0, noAccess) == expected);
        // Writes land in the flat files at their lines' offsets.
        writeAt(*disk, 100, Bytes(300, 0xAA));
        writeAt(*disk, noAccess - 200, Bytes(200, 0xBB));
        expectError([&] { readAt(*disk, noAccess, 1); },
                    "VMDK extent cannot be read: its descriptor line says NOACCESS.", zu::CIOError::codeRead);
        expectError([&] { writeAt(*disk, (2048 + 1000) * sector, Bytes(1, 1)); },
                    "VMDK extent cannot be written: its descriptor line says RDONLY.", zu::CIOError::codeWrite);
        expectError([&] { writeAt(*disk, 2048 * sector, Bytes(1, 1)); },
                    "VMDK extent of type ZERO holds only zeros and cannot be written.", zu::CIOError::codeWrite);
    }
    EXPECT_TRUE(fileText(path("f1.bin")).substr(100, 300) == std::string(300, '\xAA') &&
                fileText(path("f3.bin")).substr((2 << 20) + 512 * sector - 200, 200) == std::string(200, '\xBB') &&
                fileText(path("f2.bin")) == std::string(f2.begin(), f2.end()));
    // The descriptor, stored again with a new content ID, kept every extent
    // line as written.
    EXPECT_NE(std::string::npos, fileText(path("c.vmdk")).find(lines));
    EXPECT_EQ(std::vector<std::string>(), findingKinds(fs, uri("c.vmdk")));

    // The constructor keeps to our own variants.
    expectError([&] { openDisk(fs, uri("c.vmdk"), R); }, "VMDK disk has an unsupported create type: 'custom'.", 5);
    const std::vector<std::pair<std::string, std::string>> bad = {
        {"WO 1 FLAT \"f1.bin\" 0", "VMDK disk has an unsupported extent access: 'WO'."},
        {"RW 1 VMFSSPARSE \"f1.bin\"", "VMDK disk has an unsupported extent type: 'VMFSSPARSE'."},
        {"RW 1 SPARSE \"f1.bin\"", "VMDK disk names the same extent file twice."},
        {"RW 1 FLAT \"c.vmdk\"", "VMDK disk names the same extent file twice."}};
    for (const auto& [line, message] : bad) {
        putFile(path("c.vmdk"), text + line + "\n");
        expectError([&] { any("c.vmdk"); }, message, 5);
    }
    // A grain that spans two extents moves in prepared form as its bytes.
    putFile(path("a.bin"), std::string(100 * sector, 'a'));
    putFile(path("b.bin"), std::string(100 * sector, 'b'));
    putFile(path("span.vmdk"), replaced(text, lines, "RW 100 FLAT \"a.bin\"\nRW 100 FLAT \"b.bin\"\n"));
    {
        zu::P<CVMDKDisk> span = any("span.vmdk", RW);
        zu::TBuffer<unsigned char> prepared;
        span->readPreparedGrainData(prepared);
        EXPECT_EQ(std::string(100 * sector, 'a') + std::string(28 * sector, 'b'),
                  std::string(prepared.getData(), prepared.getData() + prepared.getUsed()));
        std::fill(prepared.getData(), prepared.getData() + prepared.getUsed(), 'c');
        span->seek(0);
        span->writePreparedGrainData(prepared);
        EXPECT_EQ(grainBytes, span->getPosition());
    }
    EXPECT_EQ(std::string(100 * sector, 'c'), fileText(path("a.bin")));
    EXPECT_EQ(std::string(28 * sector, 'c') + std::string(72 * sector, 'b'), fileText(path("b.bin")));

    // A flat file shorter than its line is refused where it is used.
    putFile(path("short.bin"), std::string(2048 * sector, 'x'));
    putFile(path("c.vmdk"), text + "RW 2048 FLAT \"short.bin\" 1\n");
    zu::P<CVMDKDisk> disk = any("c.vmdk");
    expectError([&] { readAt(*disk, disk->getDiskSizeBytes() - 1, 1); },
                "VMDK flat extent file is shorter than its extent line.", 5);
}

// Our stream file turned into a layout other tools write, with the grain
// directory found through the footer (our trail ends with one): openAny
// reads it and refuses to write it, changing nothing. (The constructor's
// refusals of such files are the extent tests'; other tools' real files
// are read in the interop test and the corpus.)
TEST_F(ForeignDiskTest, otherToolsStreamLayoutsReadOnly)
{
    const Bytes data = kordtest::pattern(3 * grainBytes + 5000, 4);
    writeAt(*CVMDKDisk::create(fs, uri("s.vmdk"), params("streamOptimized", 20 * grainSectors)), grainBytes, data);
    kordtest::patchFile(fs, uri("s.vmdk"), 56, kordtest::le64(~0ULL)); // the directory's offset: at the end
    const std::string before = fileText(path("s.vmdk"));
    {
        zu::P<CVMDKDisk> disk = any("s.vmdk", RW);
        EXPECT_TRUE(readAt(*disk, grainBytes, data.size()) == data);
        expectError([&] { writeAt(*disk, 0, Bytes(1, 1)); },
                    "VMDK stream-optimized file made by another tool can only be read, not written.", 3);
    }
    EXPECT_EQ(before, fileText(path("s.vmdk")));
    EXPECT_EQ(std::vector<std::string>(), findingKinds(fs, uri("s.vmdk")));
    // Without its last sector the footer is gone.
    putFile(path("s.vmdk"), before.substr(0, before.size() - sector));
    zu::CError e = expectThrows([&] { any("s.vmdk"); });
    EXPECT_EQ("VMDK stream-optimized file does not end with its footer: the file is truncated or was never finished.",
              msg(e));
    EXPECT_EQ(std::to_string(before.size() - sector), e.getProp("fileSize").toUTF8());
}

// The in-memory file system, whose renames fail while `failRenames` is set.
class RenameFailingFileSystem : public zu::CMemoryFileSystem {
public:
    void renameFile(const zu::CURI& from, const zu::CURI& to) override
    {
        if (failRenames) throw zu::CFileSystemError(zu::CFileSystemError::problemNoSpace, "No space left for the rename.");
        CMemoryFileSystem::renameFile(from, to);
    }
    bool failRenames = false;
};

// A text descriptor without room for what a store adds is replaced by a
// longer file in one step, keeping every line but the content ID; when the
// replacement fails, the write fails before any change and nothing is left
// behind, and a leftover of an earlier attempt is replaced. (The real
// rename on local files is taken by qemu's split disks in the disk interop
// test.)
TEST_F(ForeignDiskTest, textDescriptorGrowsByReplacement)
{
    zu::P<RenameFailingFileSystem> failing = zu::newObj<RenameFailingFileSystem>();
    const zu::CURI main = uri("split.vmdk"), leftover(main.getParent(), main.getName() + ".kord-new");
    CVMDKDisk::create(failing, main, params("twoGbMaxExtentSparse", 100));
    // The text as other tools leave it: no "encoding" line, no room.
    const std::string text = replaced(
        CVMDKDisk::openAny(failing, main, R, zu::String())->getDescriptor()->toString().toUTF8(), "encoding=\"UTF-8\"\n", "");
    failing->deleteFile(main, false);
    kordtest::writeAll(failing, main, Bytes(text.begin(), text.end()));
    failing->failRenames = true;
    {
        zu::P<CVMDKDisk> disk = CVMDKDisk::openAny(failing, main, RW, zu::String());
        EXPECT_EQ("No space left for the rename.", msg(expectThrows([&] { writeAt(*disk, 0, Bytes(10, 3)); })));
        EXPECT_TRUE(readAt(*disk, 0, 10) == Bytes(10, 0));
    }
    EXPECT_TRUE(kordtest::readAll(failing, main) == Bytes(text.begin(), text.end()));
    EXPECT_FALSE(failing->exists(leftover));
    failing->failRenames = false;
    kordtest::writeAll(failing, leftover, Bytes(3, 'x'));

    writeAt(*CVMDKDisk::openAny(failing, main, RW, zu::String()), 0, Bytes(10, 3));
    const Bytes grown = kordtest::readAll(failing, main);
    EXPECT_EQ(0u, grown.size() % sector);
    const std::string grownText(grown.begin(), std::find(grown.begin(), grown.end(), 0));
    EXPECT_NE(std::string::npos, grownText.find("encoding=\"UTF-8\"\n")) << grownText;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        EXPECT_TRUE(line.rfind("CID=", 0) == 0 || grownText.find(line + "\n") != std::string::npos) << line;
    EXPECT_FALSE(failing->exists(leftover));
    EXPECT_TRUE(readAt(*CVMDKDisk::openAny(failing, main, R, zu::String()), 0, 10) == Bytes(10, 3));
}

class ForeignInteropTest : public kordtest::QemuTest {
protected:
    zu::P<CVMDKDisk> any(const std::string& name, int access = R)
    {
        return CVMDKDisk::openAny(fs, fileURI(path(name)), access, zu::String());
    }
    // kord reads what qemu-img reads, and the disk checks clean.
    void expectReadsAsQemu(const std::string& name)
    {
        zu::P<CVMDKDisk> disk = any(name);
        const std::string qemu = sh("qemu-img convert -O raw " + name + " qemu.raw && cat qemu.raw");
        EXPECT_TRUE(readAt(*disk, 0, disk->getDiskSizeBytes()) == Bytes(qemu.begin(), qemu.end())) << name;
        disk = nullptr;
        EXPECT_EQ(std::vector<std::string>(), findingKinds(fs, fileURI(path(name)))) << name;
    }
};

// Every variant qemu-img and vmdk-convert make, and kord's delta disks over
// them (which copy a grain up from the parent), read as qemu-img reads them
// and check clean (and vmdkinfo and vmdk-convert see the size of kord's); where kord can write one it does (into zeroed grains and
// unwritten ones, across grains, at the end) and qemu-img reads it back the
// same. A flat parent that kord changed is noticed by kord's child of it.
TEST_F(ForeignInteropTest, kordReadsWritesAndStacksOnWhatOthersMake)
{
    // No whole number of grains, with data in the last one and runs of zeros.
    Bytes data = kordtest::pattern(3001000, 1);
    for (size_t at = 0; at + 300000 <= data.size(); at += 700000) std::fill_n(data.begin() + at, 300000, 0);
    putFile(path("src.raw"), std::string(data.begin(), data.end()));
    for (const std::string subformat : {"monolithicFlat", "twoGbMaxExtentFlat", "streamOptimized"})
        sh("qemu-img convert -f raw -O vmdk -o subformat=" + subformat + " src.raw q-" + subformat + ".vmdk");
    sh("qemu-img create -f vmdk -o zeroed_grain=on q-zeroed.vmdk 10M && qemu-io -f vmdk -c 'write -P 5 0 2M' "
       "-c 'write -z 64k 128k' -c 'write -z 1M 64k' -c 'write -P 6 5M 100k' q-zeroed.vmdk");
    // The children zero a grain of their parent's data, which kord's write
    // at 1000000 reaches into: the rest of it stays zeros.
    for (const std::string parent : {"monolithicFlat", "streamOptimized"})
        sh("qemu-img create -f vmdk -o zeroed_grain=on -b q-" + parent + ".vmdk -F vmdk q-child-of-" + parent +
           ".vmdk && qemu-io -f vmdk -c 'write -P 7 100k 200k' -c 'write -z 1M 128k' q-child-of-" + parent + ".vmdk");
    // The name, and whether kord can write it; children before the parents
    // that kord's writes change.
    std::vector<std::pair<std::string, bool>> disks = {
        {"q-child-of-monolithicFlat.vmdk", true}, {"q-child-of-streamOptimized.vmdk", true},
        {"q-monolithicFlat.vmdk", true},           {"q-twoGbMaxExtentFlat.vmdk", true},
        {"q-streamOptimized.vmdk", false},         {"q-zeroed.vmdk", true}};
    std::vector<std::string> parents = {"q-monolithicFlat.vmdk", "q-streamOptimized.vmdk"};
    // vmdk-convert's stream file, of whole grains (it ends a last grain cut
    // short where qemu-img cannot read it).
    const std::string vmdkConvert = kordtest::sharedPath("oracles/vmdk-convert");
    if (vmdkConvert.empty()) std::cout << "vmdk-convert is not there (../shared/oracles): its stream files not read\n";
    if (!vmdkConvert.empty()) {
        sh("head -c 2949120 src.raw >whole.raw && timeout 120 " + vmdkConvert + " whole.raw vc.vmdk");
        parents.push_back("vc.vmdk");
        disks.emplace_back("vc.vmdk", false);
    }
    // Every reader sees the size of kord's disks, no whole number of grains
    // but over vmdk-convert's file (which ends a last grain cut short).
    const bool vmdkinfo = kordtest::haveTool("vmdkinfo");
    if (!vmdkinfo) std::cout << "vmdkinfo is not installed (package libvmdk-utils): sizes not asked\n";
    for (const std::string& parent : parents) {
        const std::string type = any(parent)->getCompressed() ? "streamOptimized" : "monolithicSparse";
        zu::P<CVMDKDisk> disk = CVMDKDisk::create(fs, fileURI(path("k-" + parent)), params(type, 0, "", fileURI(path(parent))));
        writeAt(*disk, 300000, Bytes(100000, 0x3C));
        disk->makeGrainIndependentOfParent(10);
        const std::string size = std::to_string(disk->getDiskSizeBytes());
        disk = nullptr;
        disks.insert(disks.begin(), {"k-" + parent, true});
        EXPECT_TRUE(!vmdkinfo || sh("vmdkinfo k-" + parent).find("(" + size + " bytes)") != std::string::npos);
        EXPECT_TRUE(vmdkConvert.empty() ||
                    sh("timeout 60 " + vmdkConvert + " -i k-" + parent).find("\"capacity\": " + size) != std::string::npos);
    }
    for (const auto& [name, writable] : disks) {
        expectReadsAsQemu(name);
        if (!writable) continue;
        zu::P<CVMDKDisk> disk = any(name, RW);
        const long long end = disk->getDiskSizeBytes();
        for (long long at : {70000LL, 1000000LL + 5000, end - 70000})
            writeAt(*disk, at, kordtest::pattern(66000, static_cast<unsigned>(at + name.size())));
        disk = nullptr;
        expectReadsAsQemu(name);
    }
    EXPECT_EQ("VMDK parent disk has changed, but a child disk depended on it.",
              msg(expectThrows([&] { readAt(*any("k-q-monolithicFlat.vmdk"), 0, 1); })));
}

} // namespace
