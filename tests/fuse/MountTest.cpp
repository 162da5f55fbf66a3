// kord mount on a real FUSE mount: the raw file reads as "kord cat" does
// and follows the disk's map with SEEK_DATA/SEEK_HOLE; with -w it takes
// dd's writes and punched holes; unmounting (kord umount,
// fusermount3 -u) and SIGTERM write the changes and release the lock.
#include "common/SampleDisks.h"

namespace {

using disktest::fileText;

const std::string kord = KORD_BINARY_DIR "/tools/kord";

class MountTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (!kordtest::haveTool("fusermount3")) GTEST_SKIP() << "fusermount3 is not installed (package fuse3)";
        std::filesystem::create_directory(file("mnt"));
        // Whether this kord has FUSE and this machine lets it mount.
        static std::string unusable = probe();
        if (!unusable.empty()) GTEST_SKIP() << "kord mount cannot be used here: " << unusable;
    }

    void TearDown() override
    {
        if (isMounted()) kordtest::runCommand("fusermount3 -u -z '" + file("mnt") + "'");
    }

    // Runs a shell command in the test's folder, with the sample password
    // at hand; returns its status and output.
    int sh(const std::string& command, std::string* output = nullptr)
    {
        return kordtest::runCommand("cd '" + temp.path() + "' && export KORD_PASSWORD=" + kordtest::samplePassword +
                                        " && K='" + kord + "' && (" + command + ")", output);
    }

    void expectOk(const std::string& command)
    {
        std::string out;
        EXPECT_EQ(0, sh(command, &out)) << command << "\n" << out;
    }
    // The command fails (with `status` unless it is -1) and says `message`
    // (at the start unless `status` is -1).
    void expectFails(const std::string& command, const std::string& message, int status = -1)
    {
        std::string out;
        const int got = sh(command, &out);
        EXPECT_TRUE(status < 0 ? got != 0 : got == status) << command;
        EXPECT_TRUE(status < 0 ? out.find(message) != std::string::npos : out.rfind(message, 0) == 0) << out;
    }

    bool isMounted() const
    {
        return fileText("/proc/self/mountinfo").find(" " + file("mnt") + " ") != std::string::npos;
    }

    std::string file(const std::string& name) const { return temp.file(name); }

    kordtest::TempDir temp;

private:
    static std::string probe()
    {
        kordtest::TempDir dir;
        std::string out;
        return kordtest::runCommand("cd '" + dir.path() + "' && mkdir mnt && K='" + kord +
                                        "' && $K create probe.vmdk 1M && $K mount probe.vmdk mnt && $K umount mnt",
                                    &out) == 0 ? std::string() : out;
    }
};

// Each sample disk, the delta first (a change of its parent afterwards
// breaks it): mounted read-only, its raw file reads as "kord cat" does, has
// data and holes where the disk's chain has them, and takes no writes;
// mounted with -w, it takes dd's writes within its fixed size, which "kord
// cat" reads after unmounting, and a punched hole that reads as zeros.
// Then a signal and fusermount3 release a disk, and refusals.
TEST_F(MountTest, mountShowsWhatKordCatReadsTakesWritesAndLetsGo)
{
    expectOk("head -c 300000 /dev/urandom >patch.bin && head -c 100000 /dev/urandom >one.bin && "
             "head -c 100000 /dev/urandom >two.bin");
    std::vector<kordtest::CSampleDisk> disks = kordtest::makeSampleDisks(temp.path());
    std::reverse(disks.begin(), disks.end());
    for (const kordtest::CSampleDisk& disk : disks) {
        SCOPED_TRACE(disk.file);
        const std::string raw = "mnt/" + std::filesystem::path(disk.file).stem().string() + ".raw";
        expectOk("$K mount " + disk.file + " mnt && $K cat " + disk.file + " >kord.raw && [ \"$(ls mnt)\" = " +
                 raw.substr(4) + " ] && cmp " + raw + " kord.raw");
        std::string map, seeks;
        ASSERT_EQ(0, sh("/usr/bin/python3 -c 'import os, sys\n"
                        "fd = os.open(sys.argv[1], os.O_RDONLY); at = 0\n"
                        "while True:\n"
                        "    try: at = os.lseek(fd, at, os.SEEK_DATA)\n"
                        "    except OSError: break\n"
                        "    hole = os.lseek(fd, at, os.SEEK_HOLE); print(at, hole - at); at = hole\n"
                        "' " + raw, &seeks)) << seeks;
        for (const auto& range : kordtest::kordMapRanges(kordtest::kordIn(temp.path(), "map --json " + disk.file)))
            map += std::to_string(range.first) + " " + std::to_string(range.second) + "\n";
        EXPECT_EQ(map, seeks);
        expectFails("dd if=kord.raw of=" + raw + " bs=512 count=1 conv=notrunc status=none", "Read-only file system");
        expectOk("$K umount mnt && dd if=patch.bin of=kord.raw bs=1000 seek=3000 conv=notrunc status=none");
        EXPECT_FALSE(isMounted());

        expectOk("$K mount -w " + disk.file + " mnt && dd if=patch.bin of=" + raw +
                 " bs=1000 seek=3000 conv=notrunc,fsync status=none && fallocate -p -o 1M -l 1M " + raw +
                 " && dd if=/dev/zero of=kord.raw bs=1M seek=1 count=1 conv=notrunc status=none");
        expectFails("dd if=patch.bin of=" + raw + " bs=1M seek=8 conv=notrunc status=none", "No space left on device");
        expectFails("truncate -s 4M " + raw, "Invalid argument");
        expectOk("$K umount mnt && $K cat " + disk.file + " | cmp - kord.raw && $K check " + disk.file);
    }

    // SIGTERM to a mount in the foreground and fusermount3 -u to a detached
    // one: unmounted, flushed, unlocked. While a disk is mounted for
    // writing, a second mount of it is refused, as are mount points and
    // unmounts that are not ours.
    std::filesystem::create_directory(file("plain"));
    expectOk("($K mount -f -w monolithic.vmdk mnt >/dev/null 2>&1 & echo $! >pid) && for i in $(seq 200); do "
             "[ -e mnt/monolithic.raw ] && break; sleep 0.05; done && dd if=one.bin of=mnt/monolithic.raw seek=10 conv=notrunc status=none && kill -TERM $(cat pid) && "
             "while kill -0 $(cat pid) 2>/dev/null; do sleep 0.05; done");
    EXPECT_FALSE(isMounted());
    expectOk("$K cat monolithic.vmdk | cmp -n 100000 -i 5120:0 - one.bin");
    expectOk("$K mount -w monolithic.vmdk mnt && dd if=two.bin of=mnt/monolithic.raw seek=20 conv=notrunc status=none");
    for (const auto& [command, message] : std::vector<std::pair<std::string, std::string>>{
             {"$K mount monolithic.vmdk plain", "The lock file is held by another process."},
             {"$K mount stream.vmdk missing", "The mount point is not a folder."},
             {"$K umount plain", "No kord mount at this folder."}})
        expectFails(command, "kord: " + message, 2);
    expectOk("fusermount3 -u mnt && for i in $(seq 200); do $K write monolithic.vmdk --offset 0 /dev/null 2>/dev/null && "
             "break; sleep 0.05; done && $K cat monolithic.vmdk | cmp -n 100000 -i 10240:0 - two.bin");
}

} // namespace
