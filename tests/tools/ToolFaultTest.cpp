// The kord program interrupted and fooled: killed at each call by which it
// changes a file (the kill shim), a conversion leaves nothing under the
// destination's name or a complete disk, and a rerun finishes the job; and
// a raw image that reads like a descriptor is copied as the bytes it is,
// never taken for the names of other files. CI kills at a sample of the
// calls; KORD_FAULT_SWEEP=full kills at every one. (A password change cut
// short at every call is swept through the library.)
#include "ToolTestUtil.h"

#include <cstdlib>
#include <filesystem>

namespace {

class ToolFaultTest : public ToolFixture {
protected:
    // The environment that loads the kill shim (which the sanitizers must
    // allow to come before their own runtime), before its own assignments.
    const std::string shim =
        "ASAN_OPTIONS=$ASAN_OPTIONS:verify_asan_link_order=0 LD_PRELOAD='" KORD_BINARY_DIR "/tests/libkord_killshim.so' ";
    // Every call with KORD_FAULT_SWEEP=full, else every third and the last
    // few (where the files get their names).
    static bool sampled(long long call, long long calls)
    {
        const char* sweep = std::getenv("KORD_FAULT_SWEEP");
        return (sweep && std::string(sweep) == "full") || call % 3 == 1 || call > calls - 4;
    }
    // Deletes the files of the conversion's output (what a killed run left
    // beside them stays for the rerun to cope with).
    void removeOutputs()
    {
        for (const char* name : {"out.vmdk", "out-s001.vmdk"}) std::filesystem::remove(file(name));
    }
};

} // namespace

TEST_F(ToolFaultTest, rawImagesAreNotProbedForDescriptors)
{
    put("secret.bin", "the other disk's data");
    ok({"create secret.vmdk 1M", "write --offset 0 secret.vmdk secret.bin"});
    // A guest's raw disk whose first sector reads like a descriptor naming
    // a file of the host.
    const std::string text = "# Disk DescriptorFile\nversion=1\nCID=12345678\nparentCID=ffffffff\n"
                             "createType=\"monolithicSparse\"\nRW 2048 SPARSE \"secret.vmdk\"\n";
    const std::string image = text + std::string(1024 * 1024 - text.size(), '\0'), small = image.substr(0, 4096);
    put("image.raw", image);
    // A small file of descriptor text alone is a descriptor, unless told raw.
    put("small.raw", small);
    ok({"convert -O raw image.raw out.raw", "convert -f raw -O raw small.raw small-out.raw"});
    EXPECT_TRUE(disktest::fileText(file("out.raw")) == image && disktest::fileText(file("small-out.raw")) == small);
    expectFailure(kord("cat image.raw"), "The file is not a VMDK disk");
    EXPECT_NE(std::string::npos, kord("cat small.raw").out.find("the other disk's data"));
    expectFailure(kord("convert -f qcow2 small.raw x.raw"), "--format: qcow2 not in {raw,vmdk}");
}

TEST_F(ToolFaultTest, killedConversionLeavesNothingOrACompleteDisk)
{
    std::string source(700 * 1024 + 300, '\0');
    const disktest::Bytes random = kordtest::pattern(150000, 3);
    std::copy(random.begin(), random.end(), source.begin() + 1000);
    std::fill(source.begin() + 400000, source.begin() + 500000, 'x');
    put("source.raw", source);
    const std::string whole = source + std::string(512 - source.size() % 512, '\0'); // a disk holds whole sectors
    for (const std::string options :
         {"-t monolithicSparse", "-t twoGbMaxExtentSparse", "-t streamOptimized --encrypt", "-O raw"}) {
        SCOPED_TRACE(options);
        const std::string convert = "convert " + options + " source.raw out.vmdk";
        ok({convert}, "KORD_PASSWORD=pw " + shim + "KORD_KILL_COUNT=calls.txt"); // how many calls it makes
        const long long calls = std::stoll(disktest::fileText(file("calls.txt")));
        removeOutputs();
        for (long long call = 1; call <= calls; ++call) {
            if (!sampled(call, calls)) continue;
            SCOPED_TRACE(call);
            kord(convert, "KORD_PASSWORD=pw " + shim + "KORD_KILL_AT=" + std::to_string(call));
            const bool raw = options == "-O raw";
            EXPECT_TRUE(!std::filesystem::exists(file("out.vmdk")) ||
                        (raw ? disktest::fileText(file("out.vmdk")) : kord("cat out.vmdk", "KORD_PASSWORD=pw").out) ==
                            (raw ? source : whole))
                << "a disk under the destination's name must be complete";
            removeOutputs();
            ok({convert}, "KORD_PASSWORD=pw");
            removeOutputs();
        }
    }
}
