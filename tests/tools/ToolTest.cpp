// The kord program on real files: every subcommand does its job, and every
// failure ends with one line "kord: ..." on standard error and status 2.
#include "common/TestUtil.h"

#include "base/Endian.h"
#include "disk/CVMDKDisk.h"

#include <nlohmann/json.hpp>

#include <fstream>
#include <sys/stat.h>

namespace {

using Bytes = std::vector<unsigned char>;
using Json = nlohmann::json;

constexpr long long grainBytes = 64 * 1024;

struct CRun {
    int status;
    std::string out;
    std::string err;
};

std::string slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

class ToolTest : public testing::Test {
protected:
    // Runs kord in the test's folder with the given arguments (and
    // environment assignments in front).
    CRun kord(const std::string& args, const std::string& env = "")
    {
        // No terminal and no input unless the arguments redirect it.
        std::string command = "(cd '" + temp.path() + "' && " + env + " '" KORD_BINARY_DIR "/tools/kord' </dev/null " +
                              args + " >out.txt 2>err.txt)";
        int status = kordtest::runCommand(command);
        return CRun{status, slurp(file("out.txt")), slurp(file("err.txt"))};
    }

    // Status 2 and exactly one line "kord: <message>..." on standard error.
    void expectFailure(const CRun& run, const std::string& message)
    {
        EXPECT_EQ(2, run.status) << run.err;
        EXPECT_EQ(0u, run.err.rfind("kord: " + message, 0)) << run.err;
        EXPECT_EQ(1, std::count(run.err.begin(), run.err.end(), '\n')) << run.err;
    }

    Bytes cat(const std::string& disk)
    {
        CRun run = kord("cat " + disk);
        EXPECT_EQ(0, run.status) << run.err;
        return Bytes(run.out.begin(), run.out.end());
    }

    std::string file(const std::string& name) const { return temp.file(name); }
    void put(const std::string& name, const Bytes& data)
    {
        std::ofstream(file(name), std::ios::binary).write(reinterpret_cast<const char*>(data.data()), data.size());
    }
    Bytes get(const std::string& name)
    {
        std::string text = slurp(file(name));
        return Bytes(text.begin(), text.end());
    }

    // The file from the header's overHead on: grain data and what follows.
    Bytes grainArea(const std::string& name)
    {
        Bytes bytes = get(name);
        long long overHead = static_cast<long long>(zu::loadLE64(bytes.data() + 64));
        return Bytes(bytes.begin() + overHead * 512, bytes.end());
    }

    // 6 MiB and 3 sectors: random and repeated bytes between long runs of
    // zeros, and a last grain that the image ends inside.
    Bytes sample()
    {
        Bytes data(6 * 1024 * 1024 + 1536, 0);
        Bytes random = kordtest::pattern(200000, 5);
        std::copy(random.begin(), random.end(), data.begin() + 300000);
        // Text-like bytes, which deflate levels compress differently.
        for (size_t i = 4000000; i < 4400000; ++i) data[i] = static_cast<unsigned char>('a' + random[i % 199999] % 7);
        std::fill(data.end() - 700, data.end(), 0x11);
        return data;
    }

    kordtest::TempDir temp;
};

TEST_F(ToolTest, createWriteCatInfoMapOnEveryType)
{
    Bytes data = kordtest::pattern(100000, 9);
    put("data.bin", data);
    for (const char* type : {"monolithicSparse", "twoGbMaxExtentSparse", "streamOptimized"}) {
        std::string disk = std::string(type) + ".vmdk";
        ASSERT_EQ(0, kord("create -t " + std::string(type) + " --adapter ide " + disk + " 3M").status);
        CRun written = kord("write --offset 1M " + disk + " data.bin");
        ASSERT_EQ(0, written.status) << written.err;
        ASSERT_EQ(0, kord("write --offset 0 " + disk + " - <data.bin").status);
        Bytes expected(3 * 1024 * 1024, 0);
        std::copy(data.begin(), data.end(), expected.begin());
        std::copy(data.begin(), data.end(), expected.begin() + 1024 * 1024);
        EXPECT_TRUE(cat(disk) == expected) << type;

        Json info = Json::parse(kord("info --json " + disk).out);
        EXPECT_EQ(type, info["createType"]);
        EXPECT_EQ(3 * 1024 * 1024, info["virtualSize"]);
        EXPECT_EQ("ide", info["adapterType"]);
        EXPECT_EQ(4, info["extents"][0]["writtenGrains"]) << info.dump();
        EXPECT_EQ(4 * grainBytes, info["space"]["payloadSize"]);
        Json map = Json::parse(kord("map --json " + disk).out);
        EXPECT_EQ((Json{{{"offset", 0}, {"length", 2 * grainBytes}}, {{"offset", 1048576}, {"length", 2 * grainBytes}}}),
                  map[0]["ranges"]);
        EXPECT_NE(std::string::npos, kord("info " + disk).out.find("create type:          " + std::string(type)));
    }
}

TEST_F(ToolTest, convertRoundTripsEveryTypeAndLeavesHoles)
{
    Bytes data = sample();
    put("source.raw", data);
    const std::vector<std::string> conversions = {"-t monolithicSparse", "-t twoGbMaxExtentSparse",
                                                  "-t streamOptimized -c 9", "-t streamOptimized -j 3 -p",
                                                  "-t monolithicSparse -j 2 --encrypt", "-t streamOptimized --encrypt -j 4"};
    for (size_t i = 0; i < conversions.size(); ++i) {
        std::string disk = "c" + std::to_string(i) + ".vmdk";
        std::string back = "c" + std::to_string(i) + ".raw";
        CRun run = kord("convert " + conversions[i] + " source.raw " + disk, "KORD_PASSWORD=pw");
        ASSERT_EQ(0, run.status) << conversions[i] << ": " << run.err;
        EXPECT_EQ(0, kord("check " + disk, "KORD_PASSWORD=pw").status) << conversions[i];
        ASSERT_EQ(0, kord("convert -O raw " + disk + " " + back, "KORD_PASSWORD=pw").status);
        EXPECT_TRUE(get(back) == data) << conversions[i];
    }
    EXPECT_NE(std::string::npos, kord("convert -p source.raw p.vmdk").err.find("100.0%"));
    // Unwritten and zero grains are holes in a raw output.
    struct stat info;
    ASSERT_EQ(0, ::stat(file("c0.raw").c_str(), &info));
    EXPECT_LT(info.st_blocks * 512, 1024 * 1024);

    // Disk to disk: same grains move prepared (the level 9 data stays);
    // another level recompresses. (A last grain cut short is always
    // written plain, hence a source of whole grains here.)
    data.resize(6 * 1024 * 1024);
    put("whole.raw", data);
    ASSERT_EQ(0, kord("convert -t streamOptimized -c 9 whole.raw level9.vmdk").status);
    ASSERT_EQ(0, kord("convert -t streamOptimized level9.vmdk same.vmdk").status);
    ASSERT_EQ(0, kord("convert -t streamOptimized -c 1 level9.vmdk level1.vmdk").status);
    EXPECT_TRUE(grainArea("level9.vmdk") == grainArea("same.vmdk"));
    EXPECT_FALSE(grainArea("level9.vmdk") == grainArea("level1.vmdk"));
    for (const char* disk : {"same.vmdk", "level1.vmdk"}) {
        ASSERT_EQ(0, kord("convert -t twoGbMaxExtentSparse " + std::string(disk) + " split-" + disk).status);
        EXPECT_TRUE(cat("split-" + std::string(disk)) == data);
    }
    expectFailure(kord("convert source.raw c0.vmdk"), "VMDK disk file already exists.");
    expectFailure(kord("convert -O raw -t streamOptimized source.raw x.raw"), "-t applies to VMDK output only.");
}

TEST_F(ToolTest, deltaDisksReadThroughTheirParents)
{
    Bytes data = sample();
    put("source.raw", data);
    ASSERT_EQ(0, kord("convert -t streamOptimized source.raw base.vmdk").status);
    ASSERT_EQ(0, kord("create -b base.vmdk delta.vmdk").status);
    Bytes change(3000, 0xee);
    put("change.bin", change);
    ASSERT_EQ(0, kord("write --offset 2000000 delta.vmdk change.bin").status);
    std::copy(change.begin(), change.end(), data.begin() + 2000000);

    Json info = Json::parse(kord("info --json delta.vmdk").out);
    EXPECT_EQ("streamOptimized", info["createType"]); // a compressed parent's kind
    EXPECT_EQ("base.vmdk", info["parentFileNameHint"]);
    EXPECT_EQ(info["parent"]["contentID"], info["parentContentID"]);
    Json map = Json::parse(kord("map --json delta.vmdk").out);
    ASSERT_EQ(2u, map.size());
    EXPECT_EQ((Json{{{"offset", 1966080}, {"length", grainBytes}}}), map[0]["ranges"]);
    EXPECT_EQ(1, map[1]["layer"]);
    // The parent's last grain, cut short by the disk's end.
    const Json& last = map[1]["ranges"].back();
    EXPECT_EQ(static_cast<long long>(data.size()), last["offset"].get<long long>() + last["length"].get<long long>());
    EXPECT_EQ(0, kord("check delta.vmdk").status);
    ASSERT_EQ(0, kord("convert delta.vmdk flat.vmdk").status);
    EXPECT_TRUE(cat("flat.vmdk") == data);
}

TEST_F(ToolTest, passwordsComeFromFileEnvironmentOrNowhere)
{
    std::ofstream(file("pw.txt")) << "first\n";
    ASSERT_EQ(0, kord("create --encrypt --password-file pw.txt enc.vmdk 1M").status);
    EXPECT_EQ("aes256cbc", Json::parse(kord("info --json enc.vmdk", "KORD_PASSWORD=first").out)["encryption"]);
    expectFailure(kord("info enc.vmdk", "KORD_PASSWORD=wrong"), "Specified VMDK encryption password is not correct.");
    expectFailure(kord("info enc.vmdk"), "A password is needed, but there is no terminal to ask for it");
    ASSERT_EQ(0, kord("passwd --password-file pw.txt enc.vmdk", "KORD_NEW_PASSWORD=second").status);
    expectFailure(kord("cat enc.vmdk", "KORD_PASSWORD=first"), "Specified VMDK encryption password is not correct.");
    EXPECT_EQ(0, kord("check enc.vmdk", "KORD_PASSWORD=second").status);
    ASSERT_EQ(0, kord("create -t monolithicSparse plain.vmdk 1M").status);
    expectFailure(kord("passwd plain.vmdk", "KORD_NEW_PASSWORD=x"), "VMDK disk is not encrypted");
}

TEST_F(ToolTest, checkExitStatusSaysWhatItFound)
{
    ASSERT_EQ(0, kord("create disk.vmdk 1M").status);
    CRun clean = kord("check disk.vmdk");
    EXPECT_EQ(0, clean.status);
    EXPECT_EQ("disk.vmdk: no problems found\n", clean.out);
    std::fstream patch(file("disk.vmdk"), std::ios::in | std::ios::out | std::ios::binary);
    patch.seekp(72);
    patch.put(1); // uncleanShutdown
    patch.close();
    CRun damaged = kord("check -p disk.vmdk");
    EXPECT_EQ(1, damaged.status);
    EXPECT_EQ(file("disk.vmdk") + ": uncleanShutdown: VMDK extent file was not closed cleanly. uncleanShutdown=1\n"
                                  "disk.vmdk: 1 problem found\n",
              damaged.out);
    expectFailure(kord("check missing.vmdk"), "");
}

TEST_F(ToolTest, everyFailureIsOneLineAndStatus2)
{
    ASSERT_EQ(0, kord("create disk.vmdk 1M").status);
    put("data.bin", Bytes(100, 1));
    put("garbage.vmdk", Bytes(4096, 0));
    ASSERT_EQ(0, kord("create version.vmdk 1M").status);
    std::fstream patch(file("version.vmdk"), std::ios::in | std::ios::out | std::ios::binary);
    patch.seekp(4);
    patch.put(9);
    patch.close();
    const std::vector<std::string> commands = {"info", "cat", "map", "write --offset 0", "convert", "passwd"};
    for (const std::string& command : commands) {
        std::string tail = command == "convert" ? " out.vmdk" : command == "write --offset 0" ? " data.bin" : "";
        expectFailure(kord(command + " missing.vmdk" + tail), "");
        expectFailure(kord(command + " version.vmdk" + tail), "VMDK file has an unsupported version: 9");
    }
    expectFailure(kord("info garbage.vmdk"), "No descriptor found in main VMDK file.");
    // For check, a header the library refuses is a finding, not a failure.
    EXPECT_EQ(1, kord("check version.vmdk").status);

    // Another process holds the disk open for writing.
    zu::P<zu::IFileSystem> fs = zu::newObj<zu::CLocalFileSystem>();
    zu::P<kord::CVMDKDisk> holder = zu::newObj<kord::CVMDKDisk>(
        fs, zu::CLocalFileSystem::pathToURI(zu::String(file("disk.vmdk"))), zu::IIOStream::accessReadWrite,
        zu::String(), -1, nullptr, nullptr);
    for (std::string command : {"info disk.vmdk", "cat disk.vmdk", "map disk.vmdk", "check disk.vmdk",
                                       "passwd disk.vmdk", "write --offset 0 disk.vmdk data.bin",
                                       "convert disk.vmdk copy.vmdk"}) {
        CRun run = kord(command);
        expectFailure(run, "");
        EXPECT_NE(std::string::npos, run.err.find("fileSysProblem=7")) << run.err;
    }
    holder = nullptr;

    expectFailure(kord("write --offset 1M disk.vmdk data.bin"), "Write exceeds VMDK disk size.");
    expectFailure(kord("create big.vmdk 12Q"), "Invalid size: '12Q'");
    expectFailure(kord("create nosize.vmdk"), "A disk size is needed");
    expectFailure(kord("info --bogus disk.vmdk"), "");
    expectFailure(kord(""), "");
    for (const char* command : {"create", "info", "convert", "cat", "write", "map", "check", "passwd"}) {
        CRun help = kord(std::string(command) + " --help");
        EXPECT_EQ(0, help.status);
        EXPECT_NE(std::string::npos, help.out.find("Usage: kord " + std::string(command))) << help.out;
    }
}

} // namespace
