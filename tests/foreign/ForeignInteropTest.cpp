// Disks that qemu-img and vmdk-convert make, in every variant they have,
// read through openAny to the bytes qemu-img reads, check clean, and take
// kord's writes where the variant can be written (qemu-img reads them back
// the same); kord's delta disks stack on them. And the disks kord makes
// have the same virtual size in every reader, whatever their size. The
// other programs are black boxes; tests skip where one is missing.
#include "common/Corpus.h"
#include "disk/DiskTestUtil.h"

#include "disk/CVMDKChecker.h"

using namespace disktest;

namespace {

// A size that is no whole number of grains, with data in its last grain.
constexpr long long oddSize = 3001000;

class ForeignInteropTest : public kordtest::QemuTest {
protected:
    Bytes qemuReads(const std::string& image)
    {
        const std::string raw = sh("qemu-img convert -O raw " + image + " qemu.raw && cat qemu.raw");
        return Bytes(raw.begin(), raw.end());
    }
    zu::P<CVMDKDisk> any(const std::string& name, int access = R)
    {
        return CVMDKDisk::openAny(fs, fileURI(path(name)), access, zu::String());
    }
    Bytes kordReads(const std::string& name)
    {
        zu::P<CVMDKDisk> disk = any(name);
        return readAt(*disk, 0, disk->getDiskSizeBytes());
    }
    // kord reads what qemu-img reads (or `expected`), and the disk checks clean.
    void expectReadsAsQemu(const std::string& name, const Bytes& expected = Bytes())
    {
        const Bytes qemu = qemuReads(name);
        EXPECT_TRUE(kordReads(name) == qemu && (expected.empty() || qemu == expected)) << name;
        EXPECT_EQ(std::vector<std::string>(), findingKinds(fs, fileURI(path(name)))) << name;
    }
    void makeSource(const std::string& name, long long size)
    {
        Bytes data = kordtest::pattern(static_cast<size_t>(size), 1);
        for (long long at = 0; at + 300000 <= size; at += 700000) std::fill_n(data.begin() + at, 300000, 0);
        putFile(path(name), std::string(data.begin(), data.end()));
    }
};

TEST_F(ForeignInteropTest, kordReadsAndWritesWhatQemuMakes)
{
    makeSource("src.raw", oddSize);
    // (qemu's sparse disks, plain and split, are read and written by the
    // disk interop test.)
    for (const std::string subformat : {"monolithicFlat", "twoGbMaxExtentFlat", "streamOptimized"})
        sh("qemu-img convert -f raw -O vmdk -o subformat=" + subformat + " src.raw q-" + subformat + ".vmdk");
    sh("qemu-img create -f vmdk -o zeroed_grain=on q-zeroed.vmdk 10M && qemu-io -f vmdk -c 'write -P 5 0 2M' "
       "-c 'write -z 64k 128k' -c 'write -z 1M 64k' -c 'write -P 6 5M 100k' q-zeroed.vmdk");
    for (const std::string parent : {"monolithicFlat", "streamOptimized"})
        sh("qemu-img create -f vmdk -b q-" + parent + ".vmdk -F vmdk q-child-of-" + parent +
           ".vmdk && qemu-io -f vmdk -c 'write -P 7 100k 200k' q-child-of-" + parent + ".vmdk");

    // The name, and whether kord can write it; children before the parents
    // that kord's writes change.
    const std::vector<std::pair<std::string, bool>> disks = {
        {"q-child-of-monolithicFlat.vmdk", true}, {"q-child-of-streamOptimized.vmdk", true},
        {"q-monolithicFlat.vmdk", true},           {"q-twoGbMaxExtentFlat.vmdk", true},
        {"q-streamOptimized.vmdk", false},         {"q-zeroed.vmdk", true}};
    for (const auto& [name, writable] : disks) {
        expectReadsAsQemu(name);
        if (!writable) continue;
        // Into zeroed grains and unwritten ones, across grains, at the end.
        zu::P<CVMDKDisk> disk = any(name, RW);
        const long long end = disk->getDiskSizeBytes();
        for (long long at : {70000LL, 1000000LL + 5000, end - 70000})
            writeAt(*disk, at, kordtest::pattern(66000, static_cast<unsigned>(at + name.size())));
        disk = nullptr;
        expectReadsAsQemu(name);
    }
}

// kord's delta disks over flat disks and over other tools' stream files:
// the child reads through to the parent as qemu-img reads it, copies
// grains up from it, and notices when the parent changed.
TEST_F(ForeignInteropTest, kordDeltasOverForeignParents)
{
    const std::string vmdkConvert = kordtest::sharedPath("oracles/vmdk-convert");
    makeSource("src.raw", 8 << 20);
    sh("qemu-img convert -f raw -O vmdk -o subformat=monolithicFlat src.raw flat.vmdk");
    sh("qemu-img convert -f raw -O vmdk -o subformat=streamOptimized src.raw qstream.vmdk");
    std::vector<std::string> parents = {"flat.vmdk", "qstream.vmdk"};
    if (!vmdkConvert.empty()) {
        sh("timeout 120 " + vmdkConvert + " src.raw vcstream.vmdk");
        parents.push_back("vcstream.vmdk");
    } else {
        std::cout << "vmdk-convert is not there (../shared/oracles): its stream files not stacked on\n";
    }
    for (const std::string& parent : parents) {
        SCOPED_TRACE(parent);
        const std::string child = "child-" + parent;
        const std::string type = any(parent)->getCompressed() ? "streamOptimized" : "monolithicSparse";
        {
            zu::P<CVMDKDisk> disk = CVMDKDisk::create(fs, fileURI(path(child)), params(type, 0, "", fileURI(path(parent))));
            writeAt(*disk, 300000, Bytes(100000, 0x3C));
            disk->makeGrainIndependentOfParent(10);
        }
        Bytes expected = kordReads(parent);
        std::fill_n(expected.begin() + 300000, 100000, 0x3C);
        expectReadsAsQemu(child, expected);
    }
    // The flat parent can change; its child sees that.
    writeAt(*any("flat.vmdk", RW), 0, Bytes(1, 1));
    EXPECT_EQ("VMDK parent disk has changed, but a child disk depended on it.",
              kordtest::msg(kordtest::expectThrows([&] { readAt(*any("child-flat.vmdk"), 0, 1); })));
}

// Every reader sees the virtual size kord gives a disk, also when it is no
// whole number of grains, and reads kord's bytes. (Disks of whole grains
// are read by every reader in the tool and disk interop tests.)
TEST_F(ForeignInteropTest, everyReaderSeesKordsVirtualSize)
{
    const std::string vmdkConvert = kordtest::sharedPath("oracles/vmdk-convert");
    const bool vmdkinfo = kordtest::haveTool("vmdkinfo");
    if (vmdkConvert.empty()) std::cout << "vmdk-convert is not there (../shared/oracles): not asked\n";
    if (!vmdkinfo) std::cout << "vmdkinfo is not installed (package libvmdk-utils): not asked\n";
    for (const auto& [type, sectors] : std::vector<std::pair<std::string, long long>>{
             {"monolithicSparse", 1000}, {"streamOptimized", 1000}, {"twoGbMaxExtentSparse", 2 * splitSectors + 77}}) {
        SCOPED_TRACE(type);
        const std::string name = type + ".vmdk", size = std::to_string(sectors * sector);
        // Data everywhere but in the last grain, where vmdk-convert -i does
        // not finish (on its own files too) when the capacity ends inside it.
        Mirror mirror(sectors * sector);
        zu::P<CVMDKDisk> disk = CVMDKDisk::create(fs, fileURI(path(name)), params(type, sectors));
        for (long long at = 0; at < mirror.size() - 2 * grainBytes; at += mirror.size() / 5 + 1234) {
            writeAt(*disk, at, kordtest::pattern(40000, static_cast<unsigned>(at)));
            mirror.write(at, kordtest::pattern(40000, static_cast<unsigned>(at)));
        }
        disk = nullptr;
        EXPECT_NE(std::string::npos, sh("qemu-img info --output=json " + name).find("\"virtual-size\": " + size));
        EXPECT_TRUE(!vmdkinfo || sh("vmdkinfo " + name).find("(" + size + " bytes)") != std::string::npos);
        // The contents of big split disks are compared by the disk interop test.
        if (mirror.size() > (64 << 20)) continue;
        EXPECT_TRUE(qemuReads(name) == mirror.read(0, mirror.size()));
        EXPECT_TRUE(vmdkConvert.empty() ||
                    sh("timeout 60 " + vmdkConvert + " -i " + name).find("\"capacity\": " + size) != std::string::npos);
    }
}

} // namespace
