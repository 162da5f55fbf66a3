// The fault sweep. Each kind of disk (copies of single-file disks, whose
// extent lines name the original, among them) gets a workload of writes (parts of
// grains and whole grains, rewrites of stored grains, a new extent file, a
// grain table cache too small for the tables in use), and every numbered
// call of that workload in turn fails (an I/O error, a full disk, a short
// write) or crashes the process; a crash is checked as the process's files
// stand and as power losses that keep none, all or a choice of the writes
// not yet synced. After each run:
// - the disk opens;
// - the checker finds nothing but what an interrupted flush leaves behind
//   (an extent marked unclean, a trail cut short, a stale redundant table,
//   grain data no table points at yet);
// - every byte outside the written ranges is old, every byte inside old or
//   new, and a copy's original is as it was;
// - the workload run again succeeds, and leaves the new data and a disk the
//   checker finds clean.
//
// CI runs a sample: every kind of call at least once for each disk, every
// sync and every fourth call, with four power losses for each crash.
// KORD_FAULT_SWEEP=full runs every call with eight power losses each and
// prints the figures (scripts/fault-sweep.sh).
#include "DiskTestUtil.h"

#include "common/CFaultFileSystem.h"
#include "common/ExtentTestUtil.h"
#include "disk/CVMDKPasswordChange.h"

#include <cstdlib>
#include <iostream>
#include <set>

using namespace disktest;
using kordtest::CFaultFileSystem;
using Fault = CFaultFileSystem::Fault;
using kord::CVMDKChecker;

namespace {

struct CWrite {
    long long position;
    Bytes data;
};

struct CScenario {
    std::string name, type, pass;
    std::vector<CWrite> oldWrites = {}; // the disk's data before the workload
    std::vector<CWrite> writes = {};    // the workload (after the writes every scenario makes)
    long long capacitySectors = 64 * grainSectors;
    int cacheLimit = kord::CVMDKGrainTableCache::defaultLimit;
    bool onDemand = false;
    bool copied = false;                   // the disk is a copy of a single-file disk that stays beside it
    std::vector<CWrite> parentWrites = {}; // for a delta disk, the parent's data

    bool delta() const { return !parentWrites.empty(); }
};

struct CFigures {
    long long runs = 0, checks = 0, unopenable = 0, dataLost = 0, unexpectedFindings = 0, failedRetries = 0;

    // Counts a failure in `figure`; returns where it happened, for the report.
    static const std::string& tally(long long& figure, const std::string& where) { return ++figure, where; }

    void print(const std::string& what) const
    {
        std::cout << what << runs << " runs, " << checks << " checks, " << dataLost << " data lost, " << unopenable
                  << " unopenable, " << unexpectedFindings << " unexpected findings, " << failedRetries
                  << " failed retries" << std::endl;
    }
};

const char* const faultNames[] = {"I/O error", "disk full", "short write", "crash"};

// The calls a sweep fails: every one in a full sweep, else the first call
// of each kind, every sync and, where `every` is given, each every-th call.
std::vector<long long> sampledCalls(const std::vector<std::string>& kinds, bool full, long long every = 0)
{
    std::vector<long long> out;
    std::set<std::string> covered;
    for (long long call = 1; call <= static_cast<long long>(kinds.size()); ++call) {
        const std::string& kind = kinds[static_cast<size_t>(call - 1)];
        if (full || covered.insert(kind).second || kind == "sync" || (every > 0 && call % every == 0))
            out.push_back(call);
    }
    return out;
}

// The files a failed run left as they stand and, after a crash, as each of
// the power losses leaves them.
std::vector<std::pair<std::string, CFaultFileSystem::Files>> imagesAfter(CFaultFileSystem& fs, Fault fault,
                                                                         const std::vector<unsigned>& seeds)
{
    std::vector<std::pair<std::string, CFaultFileSystem::Files>> out = {{"", fs.getFiles()}};
    if (fault == Fault::crash)
        for (unsigned seed : seeds) out.emplace_back(", power loss " + std::to_string(seed), fs.getFilesAfterPowerLoss(seed));
    return out;
}

const zu::CURI diskURI{zu::String("file:///sweep/disk.vmdk")};
const zu::CURI parentURI{zu::String("file:///sweep/parent.vmdk")};
const zu::CURI originalURI{zu::String("file:///sweep/original.vmdk")};
const std::string diskKey = diskURI.toString(false).toUTF8(), originalKey = originalURI.toString(false).toUTF8();

bool allowedAfterFault(CVMDKChecker::Kind kind)
{
    return kind == kord::CVMDKProblem::kindUncleanShutdown || kind == kord::CVMDKProblem::kindDamagedTrail ||
           kind == kord::CVMDKProblem::kindDirectoriesDisagree || kind == kord::CVMDKProblem::kindLeakedSpace;
}

class FaultSweep {
public:
    // Makes the disk with its old data, learns what it holds and counts the
    // workload's calls.
    explicit FaultSweep(const CScenario& scenario) : scenario(scenario)
    {
        zu::P<CFaultFileSystem> fs = zu::newObj<CFaultFileSystem>();
        if (scenario.delta()) {
            zu::P<CVMDKDisk> parent =
                CVMDKDisk::create(fs, parentURI, params("monolithicSparse", scenario.capacitySectors, scenario.pass));
            for (const CWrite& w : scenario.parentWrites) writeAt(*parent, w.position, w.data);
        }
        CVMDKDisk::CCreateParams p = params(scenario.type, scenario.delta() ? 0 : scenario.capacitySectors, scenario.pass,
                                            scenario.delta() ? parentURI : zu::CURI());
        p.createExtentFilesOnDemand = scenario.onDemand;
        // Written again in a session of its own: compressed and encrypted
        // grains move, and the workload finds the slots they left to reuse.
        const zu::CURI made = scenario.copied ? originalURI : diskURI;
        for (int session = 0; session < 2; ++session) {
            zu::P<CVMDKDisk> disk = session == 0 ? CVMDKDisk::create(fs, made, p) : openDisk(fs, made, RW, scenario.pass);
            for (const CWrite& w : scenario.oldWrites) writeAt(*disk, w.position, w.data);
        }
        files = fs->getFiles();
        if (scenario.copied) files[diskKey] = files.at(originalKey);
        fs = zu::newObj<CFaultFileSystem>(files);
        std::set<long long> grains;
        for (const auto* list : {&scenario.parentWrites, &scenario.oldWrites, &scenario.writes})
            for (const CWrite& w : *list)
                for (long long g = w.position / grainBytes; g <= (w.position + (long long)w.data.size()) / grainBytes; ++g)
                    grains.insert(g);
        region.assign(grains.begin(), grains.end());
        oldBytes = readRegion(*openDisk(fs, diskURI, R, scenario.pass));
        newBytes = oldBytes;
        for (const CWrite& w : scenario.writes)
            for (size_t i = 0; i < w.data.size(); ++i)
                newBytes[static_cast<size_t>(regionOffset(w.position + static_cast<long long>(i)))] = w.data[i];
        EXPECT_NE(oldBytes, newBytes);
        fs = zu::newObj<CFaultFileSystem>(files);
        EXPECT_TRUE(runWorkload(fs));
        kinds = fs->getCallKinds();
    }

    // Runs the workload; returns false when it failed.
    bool runWorkload(zu::IFileSystem* fs) const
    {
        return outcome([&] {
                   zu::P<CVMDKDisk> disk = zu::newObj<CVMDKDisk>(fs, diskURI, RW, zuText(scenario.pass), -1,
                                                                 zu::newObj<kord::CVMDKGrainTableCache>(scenario.cacheLimit), nullptr);
                   for (const CWrite& w : scenario.writes) writeAt(*disk, w.position, w.data);
                   disk->flushChanges();
               }).empty();
    }

    void run(long long call, Fault fault, const std::vector<unsigned>& powerLossSeeds)
    {
        zu::P<CFaultFileSystem> fs = zu::newObj<CFaultFileSystem>(files);
        fs->arm(call, fault);
        runWorkload(fs);
        ++figures.runs;
        std::string where = scenario.name + " call " + std::to_string(call) + " (" + kinds[static_cast<size_t>(call - 1)] +
                            ") " + faultNames[static_cast<int>(fault)];
        for (const auto& [when, image] : imagesAfter(*fs, fault, powerLossSeeds)) check(image, where + when);
    }

    std::vector<std::string> kinds;
    CFigures figures;

private:
    long long regionOffset(long long position) const
    {
        auto it = std::lower_bound(region.begin(), region.end(), position / grainBytes);
        return (it - region.begin()) * grainBytes + position % grainBytes;
    }

    Bytes readRegion(CVMDKDisk& disk) const
    {
        Bytes out;
        for (long long g : region) {
            Bytes grain = readAt(disk, g * grainBytes, std::min(grainBytes, disk.getDiskSizeBytes() - g * grainBytes));
            grain.resize(grainBytes, 0);
            out.insert(out.end(), grain.begin(), grain.end());
        }
        return out;
    }

    void check(const CFaultFileSystem::Files& after, const std::string& where)
    {
        ++figures.checks;
        if (scenario.copied && after.at(originalKey) != files.at(originalKey))
            ADD_FAILURE() << CFigures::tally(figures.dataLost, where) << ": a write to the copy changed the original";
        zu::P<CFaultFileSystem> fs = zu::newObj<CFaultFileSystem>(after);
        Bytes now;
        const std::string unopenable = outcome([&] { now = readRegion(*openDisk(fs, diskURI, R, scenario.pass)); });
        if (!unopenable.empty()) {
            ADD_FAILURE() << CFigures::tally(figures.unopenable, where) << ": the disk does not open: " << unopenable;
            return;
        }
        // (Outside the written ranges, old and new are the same.)
        size_t i = 0;
        while (i < now.size() && (now[i] == oldBytes[i] || now[i] == newBytes[i])) ++i;
        if (i < now.size())
            ADD_FAILURE() << CFigures::tally(figures.dataLost, where) << ": byte "
                          << region[i / grainBytes] * grainBytes + static_cast<long long>(i) % grainBytes << " is neither old nor new";
        for (const CVMDKChecker::CFinding& f : CVMDKChecker(fs, diskURI, zuText(scenario.pass)).check())
            if (!allowedAfterFault(f.kind))
                ADD_FAILURE() << CFigures::tally(figures.unexpectedFindings, where) << ": the checker found "
                              << CVMDKChecker::getKindName(f.kind) << ": " << f.message.toUTF8();
        std::string left;
        if (runWorkload(fs) && readRegion(*openDisk(fs, diskURI, R, scenario.pass)) == newBytes)
            for (const CVMDKChecker::CFinding& f : CVMDKChecker(fs, diskURI, zuText(scenario.pass)).check())
                left += std::string(" ") + CVMDKChecker::getKindName(f.kind);
        else
            left = " (the retry failed)";
        if (!left.empty())
            ADD_FAILURE() << CFigures::tally(figures.failedRetries, where)
                          << ": the retry did not succeed or left a disk that is not clean:" << left;
    }

    CScenario scenario;
    CFaultFileSystem::Files files;
    std::vector<long long> region;
    Bytes oldBytes;
    Bytes newBytes;
};

std::vector<CScenario> scenarios()
{
    const Bytes random = kordtest::pattern(grainBytes, 1), text = kordtest::compressible(grainBytes, 2);
    const std::vector<CWrite> old = {{0, kordtest::pattern(4 * grainBytes, 3)}};
    const std::vector<CWrite> compressible = {{0, kordtest::compressible(4 * grainBytes, 6)}};
    const int defaultLimit = kord::CVMDKGrainTableCache::defaultLimit;
    std::vector<CScenario> out = {
        // Tables of three grain tables in a cache of one: they are written before the final flush.
        {"monolithicSparse", "monolithicSparse", "", {old[0], {600 * grainBytes, random}},
         {{601 * grainBytes - 10, text}, {1100 * grainBytes, random}}, 3 * 512 * grainSectors, 1},
        // The last write makes the second file.
        {"twoGbMaxExtentSparse on demand", "twoGbMaxExtentSparse", "", old,
         {{splitSectors * sector - 3000, kordtest::pattern(grainBytes, 5)}}, splitSectors + 64 * grainSectors,
         defaultLimit, true},
        // Copies of single-file disks, whose extent lines name the original:
        // they write only themselves.
        {"streamOptimized copy", "streamOptimized", "", compressible, {}, 64 * grainSectors, defaultLimit, false, true},
        {"streamOptimized encrypted", "streamOptimized", password, compressible},
        {"monolithicSparse encrypted copy", "monolithicSparse", password, old, {}, 64 * grainSectors, defaultLimit,
         false, true},
        // Zeros over the parent's grain.
        {"delta", "monolithicSparse", "", {{2 * grainBytes + 100, Bytes(300, 0x22)}},
         {{4 * grainBytes, Bytes(grainBytes, 0)}}, 64 * grainSectors, defaultLimit, false, false,
         {{0, kordtest::pattern(6 * grainBytes, 7)}}}};
    // A part of a stored grain across into the next, a whole stored grain,
    // a new grain, the same stored grain twice (moved, then in place).
    const std::vector<CWrite> writes = {{grainBytes + 1000, kordtest::pattern(grainBytes, 4)}, {3 * grainBytes, text},
                                        {10 * grainBytes, random}, {grainBytes + 5, Bytes(700, 0x55)}};
    for (CScenario& s : out) s.writes.insert(s.writes.begin(), writes.begin(), writes.end());
    return out;
}

const bool full = std::getenv("KORD_FAULT_SWEEP") && std::string(std::getenv("KORD_FAULT_SWEEP")) == "full";

} // namespace

TEST(FaultSweep, everyFaultLeavesOldOrNewAndARetrySucceeds)
{
    for (const CScenario& scenario : scenarios()) {
        SCOPED_TRACE(scenario.name);
        FaultSweep sweep(scenario);
        for (long long call : sampledCalls(sweep.kinds, full, 4))
            for (Fault fault : {Fault::ioError, Fault::noSpace, Fault::shortWrite, Fault::crash})
                sweep.run(call, fault,
                          full ? std::vector<unsigned>{0, 1, 2, 3, 4, 5, 6, 7} : std::vector<unsigned>{0, 2, 3, 4});
        sweep.figures.print(scenario.name + ": " + std::to_string(sweep.kinds.size()) + " calls, ");
    }
}

// The password of an encrypted chain, changed with each call failing or
// crashing in turn: the chain opens with the old or the new password and
// reads its data, and the change run again finishes the job.
TEST(FaultSweep, passwordChangeOfAChainOpensWithOldOrNewAndARerunFinishes)
{
    const Bytes data = kordtest::pattern(3 * grainBytes, 21);
    zu::P<CFaultFileSystem> base = zu::newObj<CFaultFileSystem>();
    writeAt(*CVMDKDisk::create(base, parentURI, params("monolithicSparse", 16 * grainSectors, "old")), 0, data);
    writeAt(*CVMDKDisk::create(base, diskURI, params("monolithicSparse", 0, "old", parentURI)), grainBytes, data);
    const CFaultFileSystem::Files files = base->getFiles();
    Bytes expected = data;
    expected.resize(4 * grainBytes);
    std::copy(data.begin(), data.end(), expected.begin() + grainBytes);
    const auto change = [&](zu::IFileSystem* fs) {
        return outcome([&] { kord::CVMDKPasswordChange(fs, diskURI, zu::String("old"), zu::String("new")).run(); }).empty();
    };
    const auto opensWith = [&](zu::IFileSystem* fs, const std::string& pass) {
        bool same = false;
        return outcome([&] { same = readAt(*openDisk(fs, diskURI, R, pass), 0, 4 * grainBytes) == expected; }).empty() && same;
    };
    zu::P<CFaultFileSystem> counting = zu::newObj<CFaultFileSystem>(files);
    ASSERT_TRUE(change(counting));
    const std::vector<std::string> kinds = counting->getCallKinds();
    CFigures figures;
    // Each check opens a chain several times, and each open derives keys:
    // CI takes the syncs and one call of every other kind.
    for (long long call : sampledCalls(kinds, full)) {
        for (Fault fault : {Fault::ioError, Fault::shortWrite, Fault::crash}) {
            zu::P<CFaultFileSystem> fs = zu::newObj<CFaultFileSystem>(files);
            fs->arm(call, fault);
            change(fs), ++figures.runs;
            for (const auto& [when, image] :
                 imagesAfter(*fs, fault, full ? std::vector<unsigned>{0, 1, 2, 3, 4, 5} : std::vector<unsigned>{0, 2})) {
                ++figures.checks;
                const std::string where = "call " + std::to_string(call) + " (" + kinds[static_cast<size_t>(call - 1)] +
                                          ") " + faultNames[static_cast<int>(fault)] + when;
                zu::P<CFaultFileSystem> after = zu::newObj<CFaultFileSystem>(image);
                if (!opensWith(after, "old") && !opensWith(after, "new"))
                    ADD_FAILURE() << CFigures::tally(figures.unopenable, where) << ": the chain opens with neither password";
                if (!change(after) || !opensWith(after, "new") || opensWith(after, "old"))
                    ADD_FAILURE() << CFigures::tally(figures.failedRetries, where) << ": the change run again did not finish";
            }
        }
    }
    figures.print("password change: " + std::to_string(kinds.size()) + " calls, ");
}
