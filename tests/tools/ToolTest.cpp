// The kord program on real files: every subcommand does its job, and every
// failure ends with one line "kord: ..." on standard error and status 2.
#include "ToolTestUtil.h"
#include "common/SampleDisks.h"

#include "base/Endian.h"

#include <nlohmann/json.hpp>

#include <functional>

namespace {

using disktest::fileText;
using Json = nlohmann::json;

class ToolTest : public ToolFixture {
protected:
    // The file from the header's overHead on: grain data and what follows
    // (of a split disk, in its first extent).
    std::string grainArea(const std::string& name)
    {
        std::string bytes = fileText(file(name));
        if (bytes.compare(0, 4, "KDMV") != 0) bytes = fileText(file(name.substr(0, name.size() - 5) + "-s001.vmdk"));
        return bytes.substr(zu::loadLE64(reinterpret_cast<const unsigned char*>(bytes.data()) + 64) * 512);
    }

    // 6 MiB and 3 sectors: random and text-like bytes (which deflate levels
    // compress differently) between long runs of zeros, and a last grain
    // that the image ends inside.
    static std::string sample()
    {
        std::string data(6 * 1024 * 1024 + 1536, 0);
        const disktest::Bytes random = kordtest::pattern(200000, 5);
        std::copy(random.begin(), random.end(), data.begin() + 300000);
        for (size_t i = 4000000; i < 4400000; ++i) data[i] = static_cast<char>('a' + random[i % 199999] % 7);
        std::fill(data.end() - 700, data.end(), 0x11);
        return data;
    }
};

// Every conversion path (raw, plain, stream and encrypted sources into
// every kind of output) gives the source's bytes and a disk that checks
// clean, and threads change how fast, never what: -j 1 and -j 3 give the
// same output. Encrypted outputs have keys of their own, so there the
// contents, the grain map and the size must agree.
TEST_F(ToolTest, everyConversionPathGivesTheSameOutputWithAnyThreads)
{
    std::string data = sample();
    put("source.raw", data);
    // Disks made from encrypted ones take the same password again.
    const std::string pw = "KORD_PASSWORD=pw KORD_NEW_PASSWORD=pw";
    ok({"convert -t monolithicSparse source.raw sparse.vmdk", "convert -t streamOptimized source.raw stream.vmdk",
        "convert -t monolithicSparse --encrypt source.raw esparse.vmdk",
        "convert -t streamOptimized --encrypt source.raw estream.vmdk"}, pw);
    // Source, then the options.
    const char* const paths[] = {"source.raw -t monolithicSparse", "source.raw -t twoGbMaxExtentSparse",
                                 "source.raw -t streamOptimized -c 9", "source.raw --encrypt",
                                 "source.raw -t streamOptimized --encrypt", "stream.vmdk -O raw",
                                 "stream.vmdk -t monolithicSparse", "stream.vmdk -t streamOptimized --encrypt",
                                 "sparse.vmdk --encrypt", "sparse.vmdk -t streamOptimized", "estream.vmdk -O raw",
                                 "estream.vmdk -t streamOptimized --encrypt", "estream.vmdk -t streamOptimized -c 2",
                                 "esparse.vmdk -O raw", "esparse.vmdk -t twoGbMaxExtentSparse"};
    int n = 0;
    for (const std::string what : paths) {
        const std::string source = what.substr(0, what.find(' ')), options = what.substr(what.find(' ') + 1);
        const bool raw = options == "-O raw";
        const bool encrypted = options.find("--encrypt") != std::string::npos;
        std::string outputs[2];
        for (int j : {1, 3}) {
            const std::string out = "t" + std::to_string(n++) + (raw ? ".raw" : ".vmdk");
            CRun run = kord("convert -j " + std::to_string(j) + " " + options + " " + source + " " + out, pw);
            ASSERT_EQ(0, run.status) << what << ": " << run.err;
            ASSERT_TRUE(raw || (kord("cat " + out, pw).out == data && kord("check " + out, pw).status == 0)) << what;
            outputs[j == 1 ? 0 : 1] =
                raw ? fileText(file(out))
                    : encrypted ? std::to_string(fileText(file(out)).size()) + kord("map --json " + out, pw).out
                                : grainArea(out);
        }
        EXPECT_TRUE(outputs[0] == outputs[1]) << what;
        EXPECT_TRUE(!raw || outputs[0] == data) << what;
    }
    // Disk to disk: same grains move prepared (the level 9 data stays);
    // another level recompresses. (A last grain cut short is always
    // written plain, hence a source of whole grains here.)
    data.resize(6 * 1024 * 1024);
    put("whole.raw", data);
    ok({"convert -t streamOptimized -c 9 whole.raw level9.vmdk", "convert -t streamOptimized level9.vmdk same.vmdk",
        "convert -t streamOptimized -c 1 level9.vmdk level1.vmdk"});
    EXPECT_TRUE(grainArea("level9.vmdk") == grainArea("same.vmdk"));
    EXPECT_FALSE(grainArea("level9.vmdk") == grainArea("level1.vmdk"));
    expectFailure(kord("convert -O raw -t streamOptimized source.raw x.raw"), "-t applies to VMDK output only.");
}

// A delta disk reads through its parent and says so in info and map, as
// qemu-img users look for it (progress on every long command, the dirty
// flag), also when its parent is gone.
TEST_F(ToolTest, deltaDisksShowTheirChainDirtinessAndMissingParents)
{
    std::string data = sample();
    put("source.raw", data);
    put("change.bin", std::string(3000, '\xee'));
    ok({"convert -t streamOptimized source.raw base.vmdk", "create -b base.vmdk delta.vmdk",
        "write --offset 2000000 delta.vmdk change.bin"});
    data.replace(2000000, 3000, 3000, '\xee');

    // A compressed parent's kind, its name and content ID, and clean.
    Json info = Json::parse(kord("info --json delta.vmdk").out);
    EXPECT_EQ((Json{"streamOptimized", "base.vmdk", info["parent"]["contentID"], false}),
              (Json{info["createType"], info["parentFileNameHint"], info["parentContentID"], info["dirty"]}));
    ok({"check delta.vmdk", "convert delta.vmdk flat.vmdk"});
    EXPECT_TRUE(kord("cat flat.vmdk").out == data);
    for (const std::string command : {"cat -p base.vmdk", "map -p base.vmdk", "check -p base.vmdk",
                                      "compare -p base.vmdk source.raw", "convert -p -O raw base.vmdk p.raw"})
        EXPECT_NE(std::string::npos, kord(command).err.find("100.0%")) << command;

    patch("delta.vmdk", 72, 1); // uncleanShutdown
    info = Json::parse(kord("info --json delta.vmdk").out);
    EXPECT_TRUE(info["dirty"] == true && info["extents"][0]["uncleanShutdown"] == true);

    ASSERT_EQ(0, ::rename(file("base.vmdk").c_str(), file("gone.vmdk").c_str()));
    info = Json::parse(kord("info --json delta.vmdk").out);
    EXPECT_EQ((Json{{"file", file("base.vmdk")}, {"missing", true}}), info["parent"]);
    const Json map = Json::parse(kord("map --json delta.vmdk").out);
    ASSERT_EQ(3u, map.size());
    EXPECT_EQ((Json{{"start", 0}, {"length", 1966080}, {"depth", 1}, {"present", false}, {"zero", false},
                    {"data", false}, {"missing", true}}),
              map[0]);
    EXPECT_NE(std::string::npos, kord("map delta.vmdk").out.find("parent missing: " + file("base.vmdk")));
    // What needs the parent's data says why it cannot have it.
    expectFailure(kord("cat delta.vmdk"), "Cannot open the file");
}

TEST_F(ToolTest, passwordsComeFromFileEnvironmentOrNowhere)
{
    put("pw.txt", "first\n");
    put("third.txt", "third\n");
    const char* const wrong = "Specified VMDK encryption password is not correct.";
    expectSteps({{"create --encrypt --password-file pw.txt enc.vmdk 1M", "", nullptr},
                 {"info enc.vmdk", "KORD_PASSWORD=wrong", wrong},
                 {"passwd --password-file pw.txt enc.vmdk", "KORD_NEW_PASSWORD=second", nullptr},
                 {"check enc.vmdk", "KORD_PASSWORD=second", nullptr},
                 {"create -t monolithicSparse plain.vmdk 1M", "", nullptr},
                 {"passwd plain.vmdk", "KORD_NEW_PASSWORD=x", "VMDK disk is not encrypted"},
                 // A disk made from an encrypted one gets a password of its own.
                 {"convert --encrypt enc.vmdk copy.vmdk", "KORD_PASSWORD=second",
                  "A password is needed, but there is no terminal to ask for it: use --new-password-file or "
                  "KORD_NEW_PASSWORD."},
                 {"convert --encrypt --new-password-file third.txt enc.vmdk copy.vmdk", "KORD_PASSWORD=second", nullptr},
                 {"compare copy.vmdk --password-file third.txt plain.vmdk", "", nullptr}});
    EXPECT_EQ("aes256cbc", Json::parse(kord("info --json enc.vmdk", "KORD_PASSWORD=second").out)["encryption"]);
}

// Exit status as qemu-img check gives it: 0 clean, 3 leaks only, 2 damage
// (whatever leaks come with it), 1 when the check cannot complete.
TEST_F(ToolTest, checkExitStatusSaysWhatItFound)
{
    put("data.bin", std::string(200000, 'd'));
    const long long versionAt = 4;
    // The disk, its damage, check's status and its first line.
    const std::vector<std::tuple<std::string, std::function<void()>, int, std::string>> cases = {
        {"clean", [] {}, 0, ""},
        // A grain appended by a writer that died before recording it.
        {"leak", [&] { put("leak.vmdk", fileText(file("leak.vmdk")) + std::string(1000, 'x')); }, 3,
         "leak.vmdk: leakedSpace: VMDK extent file holds space that no grain or metadata uses. fileSize=328680 "
         "leakedBytes=1024 usedEndSectors=640\n"},
        // Zeros behind the data are padding, as other tools write it.
        {"padded", [&] { put("padded.vmdk", fileText(file("padded.vmdk")) + std::string(4096, 0)); }, 0, ""},
        // For check, a header the library refuses is damage, not a failure.
        {"version", [&] { patch("version.vmdk", versionAt, 9); }, 2,
         "version.vmdk: refused: VMDK file has an unsupported version: 9"},
    };
    for (const auto& [name, damage, status, lines] : cases) {
        SCOPED_TRACE(name);
        const std::string disk = name + ".vmdk";
        ok({"create --adapter ide " + disk + " 1M", "write --offset 0 " + disk + " - <data.bin"});
        damage();
        CRun human = kord("check -p " + disk);
        EXPECT_EQ(status, human.status) << human.out << human.err;
        EXPECT_EQ(0u, human.out.find(lines.empty() ? disk : file(lines))) << human.out;
        CRun json = kord("check --output=json " + disk);
        Json report = Json::parse(json.out);
        EXPECT_EQ((Json{status, disk, status == 2 ? 1 : 0, status == 3 ? 1 : 0}),
                  (Json{json.status, report["filename"], report["corruptions"], report["leaks"]}));
        EXPECT_EQ(report["findings"].size(), report["leaks"].get<size_t>() + report["corruptions"].get<size_t>());
        EXPECT_EQ(Json::parse(kord("check --json " + disk).out), report);
    }
    EXPECT_EQ("clean.vmdk: no problems found\n", kord("check clean.vmdk").out);
    EXPECT_EQ("ide", Json::parse(kord("info --json clean.vmdk").out)["adapterType"]);
    const std::string leak = kord("check leak.vmdk").out;
    EXPECT_EQ("leak.vmdk: 1 leak found, no corruption\n", leak.substr(leak.find("leak.vmdk: 1")));
    expectFailure(kord("check missing.vmdk"), "Cannot open the file", 1);
    expectFailure(kord("check --output=yaml clean.vmdk"), "--output", 1);
}

// qemu-img compare's statuses: 0 identical, 1 different with the first
// differing offset, 2 error; disks and raw images in any mix, with sizes
// that differ only by zeros.
TEST_F(ToolTest, compareTellsFirstDifferenceAcrossFormats)
{
    std::string data = sample();
    put("a.raw", data);
    put("longer.raw", data + std::string(70000, 0));
    data[4000123] ^= 1;
    put("changed.raw", data);
    put("byte.bin", std::string(1, data[4000123]));
    ok({"convert -t streamOptimized a.raw a.vmdk", "convert -t twoGbMaxExtentSparse a.vmdk b.vmdk",
        "create -b a.vmdk delta.vmdk", "write --offset 4000123 delta.vmdk byte.bin"});
    for (const auto& [args, status, out] : std::vector<std::tuple<std::string, int, std::string>>{
        {"a.vmdk b.vmdk", 0, "a.vmdk and b.vmdk are identical\n"},
        {"-p longer.raw a.vmdk", 0, "longer.raw and a.vmdk are identical\n"},
        {"-s longer.raw a.vmdk", 1, "longer.raw and a.vmdk differ in size: 6362992 and 6292992 bytes\n"},
        {"a.vmdk changed.raw", 1, "a.vmdk and changed.raw differ at offset 4000123\n"},
        {"delta.vmdk a.raw", 1, "delta.vmdk and a.raw differ at offset 4000123\n"},
    }) {
        CRun run = kord("compare " + args);
        EXPECT_TRUE(status == run.status && out == run.out) << args << ": " << run.out << run.err;
    }

    // Ranges no disk holds are neither read nor looked at grain by grain:
    // a 1 TiB disk maps and compares in a few queries per grain table.
    for (const std::string wide : {"wide.vmdk", "wide2.vmdk"})
        ok({"create -t twoGbMaxExtentSparse --on-demand " + wide + " 1T", "write --offset 600G " + wide + " byte.bin"});
    EXPECT_EQ(3u, Json::parse(kord("map --json wide.vmdk").out).size());
    EXPECT_EQ("wide.vmdk and wide2.vmdk are identical\n", kord("compare wide.vmdk wide2.vmdk").out);
}

// Every failure is one line "kord: ..." and status 2 (a cause adds a line).
TEST_F(ToolTest, everyFailureIsOneLineAndStatus2)
{
    ok({"create disk.vmdk 1M", "create version.vmdk 1M"});
    patch("version.vmdk", 4, 9);
    put("data.bin", std::string(100, 1));
    for (const std::string command :
         {"info", "cat", "map", "write --offset 0", "convert", "passwd", "compare disk.vmdk"}) {
        const std::string tail = command == "convert" ? " out.vmdk" : command == "write --offset 0" ? " data.bin" : "";
        expectFailure(kord(command + " version.vmdk" + tail), "VMDK file has an unsupported version: 9");
    }
    // An error with a cause prints it on a line of its own: here damage in
    // the deflate data of grain 0, behind its 12-byte header.
    put("x.bin", std::string(100000, 'x'));
    ok({"create -t streamOptimized broken.vmdk 1M", "write --offset 0 broken.vmdk x.bin"});
    for (int i = 0; i < 16; ++i) patch("broken.vmdk", 128 * 512 + 40 + i, 0xff);
    CRun broken = kord("cat broken.vmdk");
    EXPECT_TRUE(broken.status == 2 && std::count(broken.err.begin(), broken.err.end(), '\n') == 2 &&
                broken.err.substr(0, broken.err.find(". ", 60) + 1) ==
                    "kord: Error reading compressed data from VMDK. The data cannot be decompressed." &&
                broken.err.find("\nkord:   caused by: Deflate data could not be decompressed.") != std::string::npos)
        << broken.err;

    // Another process holds the disk open for writing.
    zu::P<kord::CVMDKDisk> holder = disktest::openDisk(fs, disktest::fileURI(file("disk.vmdk")), disktest::RW);
    for (const std::string command : {"info disk.vmdk", "check disk.vmdk", "write --offset 0 disk.vmdk data.bin"})
        expectFailure(kord(command), "", command == "check disk.vmdk" ? 1 : 2, "fileSysProblem=7");
    holder = nullptr;

    expectSteps({{"write --offset 1M disk.vmdk data.bin", "", "Write exceeds VMDK disk size."},
                 {"create big.vmdk 12Q", "", "Invalid size: '12Q'"}, {"create nosize.vmdk", "", "A disk size is needed"},
                 {"create -f raw new.raw 1M", "", ""}, {"create -f vmdk -b disk.vmdk -F vmdk delta.vmdk", "", nullptr},
                 {"create -b data.bin -F raw delta2.vmdk", "", ""}, {"info --bogus disk.vmdk", "", ""}, {"", "", ""}});
    EXPECT_EQ(0, kordtest::runCommand("cd '" + temp.path() +
                                      "' && for c in create info convert cat write map check passwd compare; do '"
                                      KORD_BINARY_DIR "/tools/kord' $c --help >help.txt && "
                                      "grep -q \"^Usage: kord $c\" help.txt || exit 1; done"));
}

} // namespace
