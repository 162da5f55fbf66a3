// The nbdkit plugin in a real nbdkit on a Unix socket, with libnbd's
// nbdinfo and nbdcopy and with qemu-img as clients: every kind of disk
// serves the bytes "kord cat" reads, its map is the one "kord map" gives,
// writes land where "kord cat" finds them, and failures reach both ends.
#include "common/SampleDisks.h"

#include <array>

namespace {

using disktest::fileText;
using Json = nlohmann::json;
using kordtest::Ranges;

const std::string plugin = KORD_BINARY_DIR "/nbdkit/nbdkit-kord-plugin.so";

class NbdkitPluginTest : public testing::Test {
protected:
    void SetUp() override
    {
#if defined(__SANITIZE_ADDRESS__)
        GTEST_SKIP() << "nbdkit cannot load a sanitized plugin (with the sanitizer's runtime preloaded it hangs in "
                        "setlocale while wxWidgets loads); the plugin is tested in the release build";
#endif
        if (!std::filesystem::exists(plugin)) GTEST_SKIP() << "the nbdkit plugin was not built (nbdkit-plugin-dev missing)";
        for (const char* program : {"nbdkit", "nbdinfo", "nbdcopy"})
            if (!kordtest::haveTool(program)) GTEST_SKIP() << program << " is not installed (packages nbdkit, libnbd-bin)";
    }

    // Serves the disk with nbdkit on a private Unix socket while `client`
    // runs in the test's folder with $uri set; returns nbdkit's status
    // (the client's, once it started) and everything both printed.
    int serve(const std::string& disk, const std::string& params, const std::string& client, std::string* output = nullptr)
    {
        return kordtest::runCommand("cd '" + temp.path() + "' && nbdkit -U - '" + plugin + "' file=" + disk + " " + params +
                                        " --run '" + client + "'", output);
    }

    std::string kordCat(const std::string& disk) { return kordtest::kordIn(temp.path(), "cat " + disk); }
    // The ranges that hold data: every layer of "kord map", merged.
    Ranges kordMap(const std::string& disk) { return kordtest::kordMapRanges(kordtest::kordIn(temp.path(), "map --json " + disk)); }

    // The data ranges of "nbdinfo --map --json" output, merged.
    static Ranges nbdMap(const std::string& json)
    {
        Ranges ranges;
        for (const Json& extent : Json::parse(json))
            if (extent["type"].get<int>() == 0)
                ranges.emplace_back(extent["offset"].get<long long>(), extent["length"].get<long long>());
        return kordtest::merged(ranges);
    }

    std::string file(const std::string& name) const { return temp.file(name); }

    kordtest::TempDir temp;
};

// Each sample disk, the delta first (a change of its parent afterwards
// breaks it), then a fresh one, under one server each: nbdcopy and
// qemu-img read the bytes "kord cat" reads and nbdinfo the map "kord map"
// gives; then a sparse file copied onto it reads back through "kord cat".
// Its holes become zero requests, which zero written grains, whole or in
// part, and leave unwritten ones unallocated; qemu-img's quick zeroing of
// the whole disk first is refused over data (ENOTSUP) and changes nothing.
TEST_F(NbdkitPluginTest, servesReadsAndWritesOfEveryKindAndReportsFailures)
{
    // Data over grains 1 to 12 and in the last one.
    kordtest::runIn(temp.path(), "head -c 700000 /dev/urandom >data.bin && truncate -s 8M source.raw && "
                                 "dd if=data.bin of=source.raw seek=100000 oflag=seek_bytes conv=notrunc status=none && "
                                 "head -c 5000 data.bin | dd of=source.raw seek=8383608 oflag=seek_bytes conv=notrunc "
                                 "status=none");
    const std::string source = fileText(file("source.raw"));
    const bool haveQemu = kordtest::haveTool("qemu-img");
    std::vector<kordtest::CSampleDisk> disks = kordtest::makeSampleDisks(temp.path());
    std::reverse(disks.begin(), disks.end());
    kordtest::kordIn(temp.path(), "create fresh.vmdk 8M");
    disks.push_back({"fresh.vmdk", ""});
    std::string out;
    for (const kordtest::CSampleDisk& disk : disks) {
        SCOPED_TRACE(disk.file);
        const std::string expected = kordCat(disk.file);
        const Ranges map = kordMap(disk.file);
        const std::string qemu = haveQemu ? "qemu-img convert -f raw -O raw \"$uri\" qemu.raw && " : "";
        const std::string writer = haveQemu && !map.empty() ? "qemu-img convert -n -f raw -O raw source.raw \"$uri\""
                                                            : "nbdcopy source.raw \"$uri\"";
        ASSERT_EQ(0, serve(disk.file, disk.password.empty() ? "" : "password-file=password.txt",
                           "nbdinfo --map --json \"$uri\" >map.json && nbdcopy \"$uri\" nbd.raw && " + qemu + writer,
                           &out))
            << out;
        EXPECT_TRUE(fileText(file("nbd.raw")) == expected);
        EXPECT_TRUE(!haveQemu || fileText(file("qemu.raw")) == expected);
        EXPECT_EQ(map, nbdMap(fileText(file("map.json"))));
        EXPECT_TRUE(kordCat(disk.file) == source);
        kordtest::kordIn(temp.path(), "check " + disk.file);
    }
    // Only the grains that hold the source's data were stored.
    const long long grain = disktest::grainBytes;
    EXPECT_EQ(kordMap("fresh.vmdk"), (Ranges{{grain, 12 * grain}, {kordtest::sampleDiskBytes - grain, grain}}));

    // Problems at start stop the server with kord's message, among them the
    // lock of a disk that a server in the background keeps (its parent
    // process left the disk alone when it exited) until it is gone.
    ASSERT_EQ(0, kordtest::runCommand("cd '" + temp.path() + "' && nbdkit -U \"$PWD/sock\" -P \"$PWD/pid\" " + plugin +
                                      " file=split.vmdk", &out))
        << out;
    for (const auto& [disk, params, message] : std::vector<std::array<std::string, 3>>{
             {"split.vmdk", "readonly=true", "The lock file is held by another process."},
             {"encrypted.vmdk", "", "VMDK is encrypted but no password provided"},
             {"encrypted.vmdk", "password=wrong", "Specified VMDK encryption password is not correct."}}) {
        EXPECT_EQ(1, serve(disk, params, "true", &out)) << disk << " " << params;
        EXPECT_NE(std::string::npos, out.find(message)) << out;
    }
    EXPECT_EQ(0, kordtest::runCommand("cd '" + temp.path() + "' && pid=$(cat pid) && kill $pid && "
                                      "while kill -0 $pid 2>/dev/null; do sleep 0.05; done"));
    EXPECT_EQ(0, serve("split.vmdk", "", "true", &out)) << out;

    // A damaged grain (the last one cut off; the tables still point to it)
    // fails the client's request with EIO and puts kord's message in
    // nbdkit's log. nbdcopy's connections run at once: any of them may meet
    // the damage first.
    std::filesystem::resize_file(file("fresh.vmdk"), std::filesystem::file_size(file("fresh.vmdk")) - 32768);
    EXPECT_NE(0, serve("fresh.vmdk", "readonly=true", "nbdcopy \"$uri\" copy.raw", &out));
    EXPECT_NE(std::string::npos, out.find("]: error: VMDK grain table entry points past the end of the extent file."))
        << out;
    EXPECT_NE(std::string::npos, out.find("Input/output error")) << out;
}

} // namespace
