// The kord program interrupted and fooled: killed at each call by which it
// changes a file (the kill shim), a conversion leaves nothing under the
// destination's name or a complete disk, and a password change of a chain
// leaves it opening with the old or the new password, the rerun finishing
// the job; and a raw image that reads like a descriptor is copied as the
// bytes it is, never taken for the names of other files. CI kills at a
// sample of the calls; KORD_FAULT_SWEEP=full kills at every one.
#include "ToolTestUtil.h"

#include <cstdlib>
#include <filesystem>

namespace {

class ToolFaultTest : public ToolFixture {
protected:
    // The environment that loads the kill shim (which the sanitizers must
    // allow to come before their own runtime).
    static std::string shim(const std::string& assignments)
    {
        return "ASAN_OPTIONS=$ASAN_OPTIONS:verify_asan_link_order=0 LD_PRELOAD='" KORD_BINARY_DIR
               "/tests/libkord_killshim.so' " +
               assignments;
    }
    // How many file-changing calls the command makes when nothing kills it.
    long long countCalls(const std::string& args, const std::string& env = "")
    {
        CRun run = kord(args, env + " " + shim("KORD_KILL_COUNT=calls.txt"));
        EXPECT_EQ(0, run.status) << run.err;
        return std::stoll(disktest::fileText(file("calls.txt")));
    }
    // Every call with KORD_FAULT_SWEEP=full, else every third and the last
    // few (where the files get their names).
    static bool sampled(long long call, long long calls)
    {
        const char* sweep = std::getenv("KORD_FAULT_SWEEP");
        return (sweep && std::string(sweep) == "full") || call % 3 == 1 || call > calls - 4;
    }
    bool exists(const std::string& name) const { return std::filesystem::exists(file(name)); }
    void remove(const std::vector<std::string>& names)
    {
        for (const std::string& name : names) std::filesystem::remove(file(name));
    }
    // What each file of the folder holds.
    std::map<std::string, std::string> files() const { return disktest::snapshot(temp.path()); }
    void restore(const std::map<std::string, std::string>& saved)
    {
        for (const auto& entry : std::filesystem::directory_iterator(temp.path())) std::filesystem::remove(entry);
        for (const auto& [name, bytes] : saved) put(name, bytes);
    }
};

} // namespace

TEST_F(ToolFaultTest, rawImagesAreNotProbedForDescriptors)
{
    ASSERT_EQ(0, kord("create secret.vmdk 1M").status);
    put("secret.bin", "the other disk's data");
    ASSERT_EQ(0, kord("write --offset 0 secret.vmdk secret.bin").status);
    // A guest's raw disk whose first sector reads like a descriptor naming
    // a file of the host.
    const std::string text = "# Disk DescriptorFile\nversion=1\nCID=12345678\nparentCID=ffffffff\n"
                             "createType=\"monolithicSparse\"\nRW 2048 SPARSE \"secret.vmdk\"\n";
    std::string image = text;
    image.resize(1024 * 1024, '\0');
    put("image.raw", image);
    ASSERT_EQ(0, kord("convert -O raw image.raw out.raw").status);
    EXPECT_TRUE(disktest::fileText(file("out.raw")) == image);
    expectFailure(kord("cat image.raw"), "The file is not a VMDK disk");

    // A small file of descriptor text alone is a descriptor, unless told raw.
    std::string small = text;
    small.resize(4096, '\0');
    put("small.raw", small);
    EXPECT_NE(std::string::npos, kord("cat small.raw").out.find("the other disk's data"));
    ASSERT_EQ(0, kord("convert -f raw -O raw small.raw small-out.raw").status);
    EXPECT_TRUE(disktest::fileText(file("small-out.raw")) == small);
    expectFailure(kord("convert -f qcow2 small.raw x.raw"), "--format: qcow2 not in {raw,vmdk}");
}

TEST_F(ToolFaultTest, killedConversionLeavesNothingOrACompleteDisk)
{
    std::string source(700 * 1024 + 300, '\0');
    const disktest::Bytes random = kordtest::pattern(150000, 3);
    std::copy(random.begin(), random.end(), source.begin() + 1000);
    std::fill(source.begin() + 400000, source.begin() + 500000, 'x');
    put("source.raw", source);
    // A disk holds whole sectors.
    std::string whole = source;
    whole.resize((source.size() + 511) / 512 * 512, '\0');
    const std::vector<std::pair<std::string, std::vector<std::string>>> outputs = {
        {"-t monolithicSparse", {"out.vmdk"}},
        {"-t twoGbMaxExtentSparse", {"out.vmdk", "out-s001.vmdk"}},
        {"-t streamOptimized --encrypt", {"out.vmdk"}},
        {"-O raw", {"out.vmdk"}}};
    for (const auto& [options, names] : outputs) {
        SCOPED_TRACE(options);
        const std::string convert = "convert " + options + " source.raw out.vmdk";
        const long long calls = countCalls(convert, "KORD_PASSWORD=pw");
        remove(names);
        for (long long call = 1; call <= calls; ++call) {
            if (!sampled(call, calls)) continue;
            SCOPED_TRACE(call);
            kord(convert, "KORD_PASSWORD=pw " + shim("KORD_KILL_AT=" + std::to_string(call)));
            if (exists("out.vmdk")) {
                const std::string back = options == "-O raw" ? disktest::fileText(file("out.vmdk"))
                                                             : kord("cat out.vmdk", "KORD_PASSWORD=pw").out;
                EXPECT_TRUE(back == (options == "-O raw" ? source : whole))
                    << "a disk under the destination's name must be complete";
            }
            remove(names);
            CRun rerun = kord(convert, "KORD_PASSWORD=pw");
            EXPECT_EQ(0, rerun.status) << rerun.err;
            remove(names);
        }
    }
}

TEST_F(ToolFaultTest, killedPasswordChangeOfAChainOpensWithOldOrNewAndARerunFinishes)
{
    put("data.bin", std::string(200000, 'd'));
    ASSERT_EQ(0, kord("create --encrypt base.vmdk 1M", "KORD_PASSWORD=old").status);
    ASSERT_EQ(0, kord("write --offset 0 base.vmdk data.bin", "KORD_PASSWORD=old").status);
    ASSERT_EQ(0, kord("create --encrypt -b base.vmdk child.vmdk", "KORD_PASSWORD=old").status);
    ASSERT_EQ(0, kord("write --offset 300000 child.vmdk data.bin", "KORD_PASSWORD=old").status);
    const std::string expected = kord("cat child.vmdk", "KORD_PASSWORD=old").out;
    ASSERT_EQ(1024u * 1024, expected.size());
    const auto saved = files();
    const std::string passwd = "passwd child.vmdk";
    const long long calls = countCalls(passwd, "KORD_PASSWORD=old KORD_NEW_PASSWORD=new");
    for (long long call = 1; call <= calls; ++call) {
        if (!sampled(call, calls)) continue;
        SCOPED_TRACE(call);
        restore(saved);
        kord(passwd, "KORD_PASSWORD=old KORD_NEW_PASSWORD=new " + shim("KORD_KILL_AT=" + std::to_string(call)));
        EXPECT_TRUE(kord("cat child.vmdk", "KORD_PASSWORD=old").out == expected ||
                    kord("cat child.vmdk", "KORD_PASSWORD=new").out == expected)
            << "the chain must open with one of the passwords";
        CRun rerun = kord(passwd, "KORD_PASSWORD=old KORD_NEW_PASSWORD=new");
        EXPECT_EQ(0, rerun.status) << rerun.err;
        EXPECT_TRUE(kord("cat child.vmdk", "KORD_PASSWORD=new").out == expected);
        EXPECT_EQ(2, kord("cat base.vmdk", "KORD_PASSWORD=old").status);
    }
}
