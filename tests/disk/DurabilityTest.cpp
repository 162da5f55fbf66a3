// What flushChanges promises: the changes survive a power loss once it has
// returned, it syncs nothing when nothing changed, a write error anywhere
// (tables written because the cache is full included) reaches the caller
// and leaves the changes for a retry, and the metadata that a failed or cut
// write left behind (a stream-optimized trail, a redundant grain table) is
// put right by the next flush; rewritten grains reuse the slots they
// leave; and a copied disk is locked under its own name.
#include "DiskTestUtil.h"

#include "common/CFaultFileSystem.h"
#include "common/ExtentTestUtil.h"

#include <algorithm>
#include <tuple>

using namespace disktest;
using kordtest::CFaultFileSystem;
using Fault = CFaultFileSystem::Fault;

namespace {

const zu::CURI diskURI{zu::String("file:///durable/disk.vmdk")};

class DurabilityTest : public testing::Test {
protected:
    zu::P<CFaultFileSystem> make(const std::string& type, long long sectors = 3 * 512 * grainSectors)
    {
        zu::P<CFaultFileSystem> fs = zu::newObj<CFaultFileSystem>();
        writeAt(*CVMDKDisk::create(fs, diskURI, params(type, sectors)), 0, kordtest::pattern(grainBytes, 1));
        return fs;
    }
    zu::P<CFaultFileSystem> copy(CFaultFileSystem& fs) { return zu::newObj<CFaultFileSystem>(fs.getFiles()); }
    // The disk holds each piece of data at its place, and the checker finds it clean.
    static void expectIntact(zu::IFileSystem* fs, const std::map<long long, Bytes>& data, const std::string& pass = "")
    {
        for (const auto& [at, bytes] : data)
            EXPECT_TRUE(readAt(*openDisk(fs, diskURI, R, pass), at, static_cast<long long>(bytes.size())) == bytes) << at;
        EXPECT_TRUE(findingKinds(fs, diskURI, pass).empty());
    }
};

} // namespace

TEST_F(DurabilityTest, flushedChangesSurviveAPowerLossAndUnchangedDisksSyncNothing)
{
    for (const std::string type : {"monolithicSparse", "streamOptimized", "twoGbMaxExtentSparse"}) {
        SCOPED_TRACE(type);
        zu::P<CFaultFileSystem> fs = make(type);
        const Bytes data = kordtest::pattern(3 * grainBytes + 77, 2);
        zu::P<CVMDKDisk> disk = openDisk(fs, diskURI, RW);
        const long long opened = fs->getCallCount();
        disk->flushChanges();
        EXPECT_EQ(opened, fs->getCallCount()) << "nothing changed, nothing written or synced";
        writeAt(*disk, 700 * grainBytes - 5, data);
        disk->flushChanges();
        // The content ID and the unclean mark, the grain data, the tables,
        // the clean header: each durable before the next.
        const std::vector<std::string> kinds = fs->getCallKinds();
        EXPECT_LE(4, std::count(kinds.begin(), kinds.end(), "sync"));
        for (unsigned seed : {0u, 2u})
            expectIntact(zu::newObj<CFaultFileSystem>(fs->getFilesAfterPowerLoss(seed)), {{700 * grainBytes - 5, data}});
        const long long flushed = fs->getCallCount();
        disk = nullptr;
        EXPECT_EQ(flushed, fs->getCallCount()) << "closing a flushed disk writes nothing";
    }
}

// Writes spread over more grain tables than the cache holds: tables are
// written while the disk is in use, and an error there is not lost; nor is
// one in a stream-optimized disk's trail.
TEST_F(DurabilityTest, writeErrorsReachTheCallerAndARetryKeepsEveryChange)
{
    const std::vector<long long> grains = {3, 600, 1100, 40, 1200};
    std::map<long long, Bytes> written;
    for (long long g : grains) written[g * grainBytes + 9] = kordtest::pattern(grainBytes, g);
    const auto workload = [&](CVMDKDisk& disk) {
        for (long long g : grains) writeAt(disk, g * grainBytes + 9, written.at(g * grainBytes + 9));
        disk.flushChanges();
    };
    // A cache of one table: the others are written while the disk is in use.
    const auto openWithSmallCache = [](zu::IFileSystem* fs) {
        return zu::newObj<CVMDKDisk>(fs, diskURI, RW, "", -1, zu::newObj<kord::CVMDKGrainTableCache>(1), nullptr);
    };
    for (const std::string type : {"monolithicSparse", "streamOptimized"}) {
        const zu::P<CFaultFileSystem> base = make(type), counting = copy(*base);
        workload(*openWithSmallCache(counting));
        const std::vector<std::string> kinds = counting->getCallKinds();
        for (long long call = 1; call <= static_cast<long long>(kinds.size()); ++call) {
            if (kinds[static_cast<size_t>(call - 1)] != "write") continue;
            SCOPED_TRACE(type + " call " + std::to_string(call));
            zu::P<CFaultFileSystem> fs = copy(*base);
            fs->arm(call, Fault::ioError);
            zu::P<CVMDKDisk> disk = openWithSmallCache(fs);
            kordtest::expectThrows<zu::CIOError>([&] { workload(*disk); });
            // The fault is gone: what was written, and what is written now, lands.
            workload(*disk);
            disk = nullptr;
            expectIntact(fs, written);
        }
    }
}

TEST_F(DurabilityTest, trailAndRedundantTablesLeftBehindAreRepairedByTheNextFlush)
{
    const Bytes data = kordtest::pattern(grainBytes, 3);
    const std::string key = diskURI.toString(false).toUTF8();
    const auto staleTable = [&](Bytes& file, long long) {
        zu::P<CFaultFileSystem> image = zu::newObj<CFaultFileSystem>(CFaultFileSystem::Files{{key, file}});
        std::fill_n(file.begin() + inspectExtent(image, diskURI)->getGrainDirectory()->getRedundantEntries()[0] * sector, 4, 0);
    };
    // The damage to the file whose trail starts at trailAt, and where the
    // next new grain goes, from there (-1: anywhere).
    const std::vector<std::tuple<std::string, std::string, std::function<void(Bytes&, long long)>, long long>> damages = {
        // A write of the trail cut short: the trail is written again in its
        // place, and the new grain takes it.
        {"cut trail", "streamOptimized", [](Bytes& file, long long trailAt) { file.resize(trailAt + 836); }, 0},
        // Grain data written over the trail, then lost: kept, as it cannot be
        // told from someone's data, and the new grain goes after it.
        {"lost trail", "streamOptimized",
         [](Bytes& file, long long trailAt) { file.resize(trailAt), file.resize(trailAt + 3000, 0x3C); }, 3072},
        // A redundant grain table that missed its last write.
        {"stale redundant table", "streamOptimized", staleTable, -1},
        {"stale redundant table", "monolithicSparse", staleTable, -1}};
    for (const auto& [name, type, damage, newGrainAt] : damages) {
        SCOPED_TRACE(name + " " + type);
        CFaultFileSystem::Files files = make(type, 64 * grainSectors)->getFiles();
        const long long trailAt = static_cast<long long>(files.at(key).size()) - 1536;
        damage(files.at(key), trailAt);
        zu::P<CFaultFileSystem> fs = zu::newObj<CFaultFileSystem>(files);
        EXPECT_FALSE(findingKinds(fs, diskURI).empty());
        kordtest::LogCapture log;
        writeAt(*openDisk(fs, diskURI, RW), 5 * grainBytes, data);
        expectIntact(fs, {{5 * grainBytes, data}, {0, kordtest::pattern(grainBytes, 1)}});
        EXPECT_EQ(name == "cut trail", log.contains("VMDK trail data was cut short by an interrupted write"));
        EXPECT_EQ(name == "lost trail", log.contains("VMDK trail data is not what we expected. Assuming that it is "
                                                     "not trail data - we won't overwrite it."));
        // What could not be told from someone's data is still there.
        const Bytes after = fs->getFiles().at(key);
        EXPECT_TRUE(name != "lost trail" ||
                    std::all_of(after.begin() + trailAt, after.begin() + trailAt + 3000, [](auto b) { return b == 0x3C; }));
        long long pos = 0, slot = 0;
        inspectExtent(fs, diskURI)->getGrainInfo(5, pos, slot);
        EXPECT_TRUE(newGrainAt < 0 || trailAt + newGrainAt == pos * sector) << pos;
    }

}

// Compressed and encrypted grains move when rewritten; the slots they leave
// are reused in the same session once the move is durable, and in later
// sessions as space no table points at: the file stops growing.
TEST_F(DurabilityTest, rewrittenGrainsReuseTheSlotsTheyLeave)
{
    for (const auto& [type, pass] : std::vector<std::pair<std::string, std::string>>{
             {"streamOptimized", ""}, {"streamOptimized", password}, {"monolithicSparse", password}}) {
        SCOPED_TRACE(type + " " + pass);
        zu::P<CFaultFileSystem> fs = zu::newObj<CFaultFileSystem>();
        CVMDKDisk::create(fs, diskURI, params(type, 16 * grainSectors, pass));
        const std::string key = diskURI.toString(false).toUTF8();
        std::vector<size_t> sizes;
        for (int session = 0; session < 4; ++session) {
            zu::P<CVMDKDisk> disk = openDisk(fs, diskURI, RW, pass);
            for (int round = 0; round < 2; ++round) {
                for (long long g = 0; g < 16; ++g) writeAt(*disk, g * grainBytes, kordtest::pattern(grainBytes, g + round));
                disk->flushChanges();
            }
            disk = nullptr;
            sizes.push_back(fs->getFiles().at(key).size());
        }
        EXPECT_EQ(sizes[1], sizes[3]) << "later sessions fit in what the first left";
        std::map<long long, Bytes> expected;
        for (long long g = 0; g < 16; ++g) expected[g * grainBytes] = kordtest::pattern(grainBytes, g + 1);
        expectIntact(fs, expected, pass);
    }
}

// A copy of a single-file disk is a disk of its own, whatever name its
// extent line gives: it is locked under its own name, and the original
// opens for writing beside it. (That writes to a copy, cut short or not,
// leave the original alone is the fault sweep's.)
TEST_F(DurabilityTest, aCopiedSingleFileDiskIsLockedUnderItsOwnName)
{
    const zu::CURI copyURI{zu::String("file:///durable/copy.vmdk")};
    CFaultFileSystem::Files files = make("monolithicSparse", 64 * grainSectors)->getFiles();
    files[copyURI.toString(false).toUTF8()] = files.at(diskURI.toString(false).toUTF8());
    zu::P<CFaultFileSystem> fs = zu::newObj<CFaultFileSystem>(files);
    zu::P<CVMDKDisk> copy = openDisk(fs, copyURI, RW);
    EXPECT_TRUE(fs->exists(zu::CURI(copyURI.getParent(), "copy.vmdk.lock")));
    EXPECT_FALSE(fs->exists(zu::CURI(diskURI.getParent(), "disk.vmdk.lock")));
    writeAt(*openDisk(fs, diskURI, RW), 0, kordtest::pattern(grainBytes, 8));
    EXPECT_THROW(openDisk(fs, copyURI, RW), zu::CError);
}
