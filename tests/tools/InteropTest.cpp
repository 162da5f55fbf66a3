// The kord program beside other software: every disk of the corpus
// converts into each of kord's create types and back to the bytes its
// producer meant, checks clean, and info shows what it is made of; kord's
// maps and checks say what qemu-img's say; and every stream file kord
// writes is taken by every other reader.
#include "common/Corpus.h"
#include "disk/DiskTestUtil.h"

#include <nlohmann/json.hpp>

#include <sys/stat.h>

namespace {

using Json = nlohmann::json;

const std::string K = "'" KORD_BINARY_DIR "/tools/kord' ";

// Runs kord commands (K is the program) in `dir`; expects success and returns the output.
std::string kordOk(const std::string& dir, const std::string& args) { return kordtest::runIn(dir, K + args); }

// kord's map of a disk and qemu-img's are the same JSON: the same entries,
// depths and host offsets.
void expectMapLikeQemu(const std::string& dir, const std::string& disk)
{
    EXPECT_EQ(Json::parse(kordtest::runIn(dir, "qemu-img map --output=json " + disk + " 2>/dev/null")),
              Json::parse(kordOk(dir, "map --output=json " + disk + " 2>/dev/null")))
        << disk;
}

long long allocatedBytes(const std::string& path)
{
    struct stat info;
    return ::stat(path.c_str(), &info) == 0 ? info.st_blocks * 512LL : -1;
}

TEST(InteropTest, corpusDisksConvertIntoEveryTypeAndBack)
{
    const std::vector<kordtest::CorpusDisk> disks = kordtest::corpusDisks();
    if (disks.empty()) GTEST_SKIP() << "the corpus ../shared/vmdk-corpus is not there: real-world files not converted";
    kordtest::TempDir temp;
    const bool haveQemu = kordtest::haveTool("qemu-img");
    for (const kordtest::CorpusDisk& d : disks) {
        SCOPED_TRACE(d.id);
        const std::string dir = kordtest::unpackCorpusDisk(d, temp.path());
        kordOk(dir, "check " + d.mainFile);
        if (haveQemu) expectMapLikeQemu(dir, d.mainFile);
        EXPECT_EQ(d.size, Json::parse(kordOk(dir, "info --json " + d.mainFile))["virtualSize"]);
        // What info says of a flat disk, and of a file whose embedded
        // descriptor names another file.
        const std::map<std::string, std::string> infoLines = {
            {"R09", "vmfs_thick-flat.vmdk: RW VMFS, 4096 sectors, 32 written grains, file 2 MiB"},
            {"V01", "note: the extent line names \"disk\"; the descriptor is embedded in this file, which is the extent"}};
        EXPECT_TRUE(!infoLines.count(d.id) || kordOk(dir, "info " + d.mainFile).find(infoLines.at(d.id)) != std::string::npos);
        for (const std::string type : {"monolithicSparse", "twoGbMaxExtentSparse", "streamOptimized"}) {
            const std::string converted = "kord-" + type + ".vmdk", back = "kord-" + type + ".raw";
            kordOk(dir, "convert -t " + type + " " + d.mainFile + " " + converted + " && " + K + "check " + converted +
                            " && " + K + "convert -O raw " + converted + " " + back);
            EXPECT_EQ(d.size, static_cast<long long>(std::filesystem::file_size(dir + "/" + back)));
            // A raw image holds only what is not zeros: one that is all holes
            // reads as zeros, which is what the big, empty disk of the corpus
            // holds (its hash is that of 8 GiB of zeros).
            if (d.size <= (64 << 20))
                EXPECT_EQ(d.sha256, kordtest::runIn(dir, "sha256sum " + back).substr(0, 64)) << type;
            else
                EXPECT_EQ(0, allocatedBytes(dir + "/" + back)) << type;
            std::filesystem::remove(dir + "/" + back);
        }
    }
}

// Chains of delta disks made by qemu-img (whose top zeroes grains, over its
// parent's data and over none) and by kord map alike (the disk of the chain
// that holds each range is its depth);
// for the chains, check's JSON has the keys qemu-img's has, with its values
// for a clean disk. (Other tools' stream files are mapped with the corpus.)
TEST(InteropTest, mapsAndChecksAsQemuImgSays)
{
    if (!kordtest::haveTool("qemu-img") || !kordtest::haveTool("qemu-io"))
        GTEST_SKIP() << "qemu-img or qemu-io is not installed (package qemu-utils): maps not compared";
    kordtest::TempDir temp;
    const std::string dir = temp.path();
    auto sh = [&](const std::string& command) { kordtest::runIn(dir, command); };
    const std::string k = " && " + K;
    sh("qemu-img create -f vmdk qbase.vmdk 4M && qemu-io -c 'write -P 1 0 64k' -c 'write -P 2 1M 192k' qbase.vmdk && "
       "qemu-img create -f vmdk -o zeroed_grain=on -F vmdk -b qbase.vmdk qtop.vmdk && qemu-io -c 'write -P 3 1M 128k' "
       "-c 'write -z 0 64k' -c 'write -z 2M 64k' qtop.vmdk");
    sh("head -c 196608 /dev/urandom >a.bin" + k + "create -t twoGbMaxExtentSparse kbase.vmdk 4M" + k + "write --offset 0 kbase.vmdk a.bin" + k +
       "write --offset 1M kbase.vmdk a.bin" + k + "create -t monolithicSparse -b kbase.vmdk kmid.vmdk" + k +
       "write --offset 1100000 kmid.vmdk a.bin" + k + "create -b kmid.vmdk ktop.vmdk" + k +
       "write --offset 3M ktop.vmdk a.bin");
    for (const std::string disk : {"qtop.vmdk", "kmid.vmdk", "ktop.vmdk"}) {
        SCOPED_TRACE(disk);
        expectMapLikeQemu(dir, disk);
        const Json qemu = Json::parse(kordtest::runIn(dir, "qemu-img check --output=json " + disk + " 2>/dev/null"));
        const Json ours = Json::parse(kordOk(dir, "check --output=json " + disk + " 2>/dev/null"));
        for (const auto& item : qemu.items()) EXPECT_EQ(item.value(), ours[item.key()]) << item.key();
        EXPECT_TRUE(ours["corruptions"] == 0 && ours["leaks"] == 0) << ours.dump();
    }
}

// Every stream file kord writes, the default (packed, with its slot-size
// directory) and the plain one, on one thread and on two, is taken by
// qemu-img and vmdk-convert (vmdkinfo reads kord's stream files in the
// foreign interop test) and reads back as the source, also after kord rewrote
// grains of a packed one (the plain one is read-only to kord); a packed
// file takes about the room its apparent size says.
TEST(InteropTest, kordsStreamFilesAreTakenByEveryReader)
{
    const std::string vmdkConvert = kordtest::sharedPath("oracles/vmdk-convert");
    if (!kordtest::haveTool("qemu-img")) GTEST_SKIP() << "qemu-img is not installed: stream files not checked";
    if (vmdkConvert.empty()) std::cout << "vmdk-convert is not there (../shared/oracles): not asked\n";
    kordtest::TempDir temp;
    const std::string dir = temp.path();
    // 4 MiB, whole grains (vmdk-convert does not finish a last grain cut
    // short): random, text-like and zero runs.
    std::string data(4 << 20, 0);
    const disktest::Bytes random = kordtest::pattern(700000, 3);
    std::copy(random.begin(), random.end(), data.begin() + 100000);
    for (size_t i = 2000000; i < 3500000; ++i) data[i] = static_cast<char>('a' + random[i % 699999] % 5);
    disktest::putFile(dir + "/source.raw", data);
    kordtest::runIn(dir, "head -c 300000 /dev/urandom >change.bin");
    std::string changed = data;
    changed.replace(150000, 300000, disktest::fileText(dir + "/change.bin"));
    std::string out;
    int n = 0;
    for (const std::string options : {"-j 1", "-j 2", "-j 1 --plain-stream", "-j 2 --plain-stream"}) {
        SCOPED_TRACE(options);
        const bool plain = options.find("plain") != std::string::npos;
        const std::string name = "s" + std::to_string(n++) + ".vmdk";
        kordOk(dir, "convert -t streamOptimized " + options + " source.raw " + name + " && " + K + "check " + name);
        const std::string path = dir + "/" + name;
        EXPECT_LE(static_cast<long long>(std::filesystem::file_size(path)), allocatedBytes(path) + 64 * 1024)
            << "packed: no holes but the padding before the grains";
        EXPECT_TRUE(kordOk(dir, "cat " + name) == data);
        // kord rewrites grains of a packed file, which move to new slots; a
        // plain one it only reads.
        EXPECT_EQ(plain ? 2 : 0, kordtest::runCommand("cd '" + dir + "' && " + K + "write --offset 150000 " + name +
                                                      " change.bin", &out)) << out;
        const std::string& expected = plain ? data : changed;
        EXPECT_TRUE(kordtest::runIn(dir, "qemu-img convert -O raw " + name + " qemu.raw && cat qemu.raw") == expected);
        expectMapLikeQemu(dir, name);
        if (vmdkConvert.empty()) continue;
        kordtest::runCommand("cd '" + dir + "' && timeout 60 " + vmdkConvert + " -i " + name, &out);
        EXPECT_NE(std::string::npos, out.find("\"capacity\": " + std::to_string(data.size()))) << out;
        std::filesystem::remove(dir + "/vc.raw");
        kordtest::runCommand("cd '" + dir + "' && timeout 60 " + vmdkConvert + " " + name + " vc.raw", &out);
        EXPECT_TRUE(disktest::fileText(dir + "/vc.raw") == expected) << out;
    }
}

} // namespace
