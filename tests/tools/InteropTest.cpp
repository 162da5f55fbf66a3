// kord and qemu-img (and vmdkinfo) read each other's disks byte for byte;
// both used as black boxes.
#include "common/TestUtil.h"

#include "base/Endian.h"

#include <fstream>

namespace {

using Bytes = std::vector<unsigned char>;

constexpr long long grainBytes = 64 * 1024;

std::string slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

class InteropTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (!kordtest::haveTool("qemu-img"))
            GTEST_SKIP() << "qemu-img is not installed; run scripts/setup.sh (package qemu-utils) to check interop";
        // 5 MiB and 5 sectors: data, zeros, and a last grain cut short.
        source.assign(5 * 1024 * 1024 + 2560, 0);
        Bytes random = kordtest::pattern(700000, 11);
        std::copy(random.begin(), random.end(), source.begin() + 123456);
        std::fill(source.end() - 3000, source.end(), 0x77);
        std::ofstream(file("source.raw"), std::ios::binary)
            .write(reinterpret_cast<const char*>(source.data()), static_cast<std::streamsize>(source.size()));
    }

    std::string file(const std::string& name) const { return temp.file(name); }

    int run(const std::string& command, std::string* output = nullptr)
    {
        return kordtest::runCommand("cd '" + temp.path() + "' && " + command, output);
    }
    static std::string kord() { return "'" KORD_BINARY_DIR "/tools/kord'"; }

    Bytes read(const std::string& name)
    {
        std::string text = slurp(file(name));
        return Bytes(text.begin(), text.end());
    }

    // What another reader shows is the source, followed by zeros up to a
    // whole grain at most: qemu-img rounds some disk sizes up to a grain.
    void expectSourceThenZeros(const Bytes& shown, const std::string& what) const
    {
        ASSERT_GE(shown.size(), source.size()) << what;
        EXPECT_LT(shown.size(), source.size() + grainBytes) << what;
        EXPECT_TRUE(std::equal(source.begin(), source.end(), shown.begin())) << what;
        EXPECT_TRUE(std::all_of(shown.begin() + static_cast<long>(source.size()), shown.end(),
                                [](unsigned char b) { return b == 0; }))
            << what;
    }

    kordtest::TempDir temp;
    Bytes source;
};

TEST_F(InteropTest, qemuReadsWhatKordConverts)
{
    bool haveVmdkinfo = kordtest::haveTool("vmdkinfo");
    for (const char* type : {"monolithicSparse", "twoGbMaxExtentSparse", "streamOptimized"}) {
        std::string disk = std::string(type) + ".vmdk";
        std::string out;
        ASSERT_EQ(0, run(kord() + " convert -t " + type + " source.raw " + disk, &out)) << out;
        ASSERT_EQ(0, run("qemu-img convert -f vmdk -O raw " + disk + " " + type + ".raw", &out)) << out;
        expectSourceThenZeros(read(std::string(type) + ".raw"), type);
        EXPECT_EQ(0, run("qemu-img check -f vmdk " + disk, &out)) << out;
        EXPECT_NE(std::string::npos, out.find("No errors were found on the image.")) << out;
        if (haveVmdkinfo) {
            EXPECT_EQ(0, run("vmdkinfo " + disk, &out)) << out;
        }
    }
}

TEST_F(InteropTest, kordReadsWhatQemuConverts)
{
    for (const char* subformat : {"monolithicSparse", "twoGbMaxExtentSparse"}) {
        std::string disk = std::string("qemu-") + subformat + ".vmdk";
        std::string out;
        ASSERT_EQ(0, run("qemu-img convert -f raw -O vmdk -o subformat=" + std::string(subformat) + " source.raw " + disk,
                         &out))
            << out;
        // The same bytes as qemu-img itself reads from its disk.
        ASSERT_EQ(0, run("qemu-img convert -f vmdk -O raw " + disk + " qemu.raw", &out)) << out;
        Bytes expected = read("qemu.raw");
        expectSourceThenZeros(expected, subformat);
        ASSERT_EQ(0, run(kord() + " convert -O raw " + disk + " " + disk + ".raw", &out)) << out;
        EXPECT_TRUE(read(disk + ".raw") == expected) << subformat;
        EXPECT_EQ(0, run(kord() + " check " + disk, &out)) << out;
        // kord writes into qemu's disk; qemu reads the change back.
        std::fill(expected.begin() + 4096, expected.begin() + 4096 + 70000, 0xab);
        ASSERT_EQ(0, run("head -c 70000 /dev/zero | tr '\\0' '\\253' | " + kord() + " write --offset 4096 " + disk, &out))
            << out;
        ASSERT_EQ(0, run("qemu-img convert -f vmdk -O raw " + disk + " back.raw", &out)) << out;
        EXPECT_TRUE(read("back.raw") == expected) << subformat;
    }
}

// qemu-img's stream-optimized files lay out their metadata in ways the
// library does not take: refused with the library's message, one line.
TEST_F(InteropTest, qemuStreamOptimizedIsRefused)
{
    std::string out;
    ASSERT_EQ(0, run("qemu-img convert -f raw -O vmdk -o subformat=streamOptimized source.raw qemu-so.vmdk", &out))
        << out;
    Bytes header = read("qemu-so.vmdk");
    ASSERT_GE(header.size(), 512u);
    // gdOffset -1: the directory follows the grains (at the end of the file).
    bool directoryAtEnd = static_cast<long long>(zu::loadLE64(header.data() + 56)) == -1;
    std::string message = directoryAtEnd ? "VMDK file uses an unsupported variant of the 'stream optimized' format."
                                         : "Slot size directory not found in compressed VMDK.";
    EXPECT_EQ(2, run("(" + kord() + " convert -O raw qemu-so.vmdk out.raw 2>err.txt >/dev/null)"));
    std::string err = slurp(file("err.txt"));
    EXPECT_EQ(0u, err.find("kord: " + message)) << err;
    EXPECT_EQ(1, std::count(err.begin(), err.end(), '\n')) << err;
    std::cout << "qemu-img streamOptimized (gdOffset " << (directoryAtEnd ? "-1" : "in place") << "): " << err;
}

} // namespace
