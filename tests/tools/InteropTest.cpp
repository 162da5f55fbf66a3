// The kord program on disks other software made: every disk of the corpus
// checks clean and converts into each of kord's create types and back to
// the bytes its producer meant; info shows what the disk is made of.
#include "common/Corpus.h"
#include "disk/DiskTestUtil.h"

#include <nlohmann/json.hpp>

#include <sys/stat.h>

namespace {

using Json = nlohmann::json;

int kord(const std::string& dir, const std::string& args, std::string* out = nullptr)
{
    return kordtest::runCommand("cd '" + dir + "' && '" KORD_BINARY_DIR "/tools/kord' " + args, out);
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
    for (const kordtest::CorpusDisk& d : disks) {
        SCOPED_TRACE(d.id);
        const std::string main = kordtest::unpackCorpusDisk(d, temp.path());
        const std::string dir = temp.path() + "/" + d.id;
        std::string out;
        EXPECT_EQ(0, kord(dir, "check " + d.mainFile, &out)) << out;
        ASSERT_EQ(0, kord(dir, "info --json " + d.mainFile, &out)) << out;
        const Json info = Json::parse(out);
        EXPECT_EQ(d.size, info["virtualSize"]);
        for (const std::string type : {"monolithicSparse", "twoGbMaxExtentSparse", "streamOptimized"}) {
            const std::string converted = "kord-" + type + ".vmdk", back = "kord-" + type + ".raw";
            ASSERT_EQ(0, kord(dir, "convert -t " + type + " " + d.mainFile + " " + converted, &out)) << type << out;
            EXPECT_EQ(0, kord(dir, "check " + converted, &out)) << type << out;
            ASSERT_EQ(0, kord(dir, "convert -O raw " + converted + " " + back, &out)) << type << out;
            EXPECT_EQ(d.size, static_cast<long long>(std::filesystem::file_size(dir + "/" + back)));
            // A raw image holds only what is not zeros: one that is all holes
            // reads as zeros, as the big, empty disk of the corpus does
            // (whose hash the library test checks).
            if (d.size <= (64 << 20))
                EXPECT_EQ(d.sha256, kordtest::sha256OfFile(dir + "/" + back)) << type;
            else
                EXPECT_EQ(0, allocatedBytes(dir + "/" + back)) << type;
            std::filesystem::remove(dir + "/" + back);
        }
    }
}

// What info says of a flat disk, and of a file whose embedded descriptor
// names another file.
TEST(InteropTest, infoShowsExtentKindsAndNameMismatch)
{
    const std::vector<kordtest::CorpusDisk> disks = kordtest::corpusDisks();
    if (disks.empty()) GTEST_SKIP() << "the corpus ../shared/vmdk-corpus is not there";
    kordtest::TempDir temp;
    for (const kordtest::CorpusDisk& d : disks) {
        if (d.id != "R09" && d.id != "V01") continue;
        kordtest::unpackCorpusDisk(d, temp.path());
        std::string out;
        ASSERT_EQ(0, kord(temp.path() + "/" + d.id, "info " + d.mainFile, &out)) << out;
        const std::string expected =
            d.id == "R09" ? "vmfs_thick-flat.vmdk: RW VMFS, 4096 sectors, 32 written grains, file 2 MiB"
                          : "note: the extent line names \"disk\"; the descriptor is embedded in this file, which is "
                            "the extent";
        EXPECT_NE(std::string::npos, out.find(expected)) << out;
    }
}

} // namespace
