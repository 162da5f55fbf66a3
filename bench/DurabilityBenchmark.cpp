// What durability costs: whole disks written and flushed with syncs on and
// off (a flush syncs the grain data, the tables and the header, each before
// the next), many small flushed writes (the sync latency per flush), and
// the file growth of rewriting compressed grains, which move to fresh slots
// until their move is durable (apparent size and the room the file takes). Files go to the folder named by
// KORD_BENCH_DIR (default /tmp), so that a real disk can be measured.
#include "base/CLocalFileSystem.h"
#include "disk/CVMDKDisk.h"

#include <benchmark/benchmark.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr long long grainBytes = 64 * 1024;

zu::CURI benchURI(const std::string& name)
{
    const char* dir = std::getenv("KORD_BENCH_DIR");
    return zu::CLocalFileSystem::pathToURI(zu::String(std::string(dir ? dir : "/tmp") + "/kord-bench-" +
                                                      std::to_string(getpid()) + "-" + name));
}

// Half text-like (compresses well), half random, like disks.
const std::vector<unsigned char>& grainData()
{
    static const std::vector<unsigned char> data = [] {
        std::vector<unsigned char> out(4 * grainBytes);
        std::mt19937 rng(7);
        for (size_t i = 0; i < out.size(); ++i) out[i] = (i / 4096) % 2 ? static_cast<unsigned char>(rng()) : "disk\n"[i % 5];
        return out;
    }();
    return data;
}

class BenchDisk {
public:
    BenchDisk(const std::string& name, const char* type, long long grains) : uri(benchURI(name))
    {
        remove();
        kord::CVMDKDisk::CCreateParams params;
        params.createType = type;
        params.capacitySectors = grains * grainBytes / 512;
        kord::CVMDKDisk::create(fs, uri, params);
    }
    ~BenchDisk() { remove(); }
    zu::P<kord::CVMDKDisk> open() { return zu::newObj<kord::CVMDKDisk>(fs, uri, 3, zu::String(), -1, nullptr, nullptr); }
    long long fileSize() { return fs->getFileSize(uri); }
    // What the file takes on the disk (its slots' holes take nothing).
    long long allocatedBytes()
    {
        struct stat info;
        return ::stat(zu::CLocalFileSystem::uriToPath(uri).toUTF8().c_str(), &info) == 0 ? info.st_blocks * 512 : -1;
    }
    void remove()
    {
        fs->deleteFile(uri, true);
        fs->deleteFile(zu::CURI(uri.getParent(), uri.getName() + ".lock"), true);
    }

private:
    zu::P<zu::IFileSystem> fs = zu::newObj<zu::CLocalFileSystem>();
    zu::CURI uri;
};

void writeGrains(kord::CVMDKDisk& disk, long long first, long long count)
{
    const std::vector<unsigned char>& data = grainData();
    for (long long g = first; g < first + count; ++g) {
        disk.seek(g * grainBytes);
        disk.write(data.data() + (g % 4) * grainBytes, static_cast<int>(grainBytes));
    }
}

// N grains written and flushed into a new monolithicSparse disk.
void BM_WriteThenFlush(benchmark::State& state)
{
    const long long grains = state.range(0);
    const bool sync = state.range(1) != 0;
    for (auto _ : state) {
        state.PauseTiming();
        BenchDisk file("flush", "monolithicSparse", grains);
        zu::P<kord::CVMDKDisk> disk = file.open();
        disk->setSyncEnabled(sync);
        state.ResumeTiming();
        writeGrains(*disk, 0, grains);
        disk->flushChanges();
        disk = nullptr;
    }
    state.SetBytesProcessed(state.iterations() * grains * grainBytes);
}

// 4 KiB written and flushed, over and over: the cost of one flush.
void BM_SmallFlushedWrites(benchmark::State& state)
{
    const bool sync = state.range(0) != 0;
    BenchDisk file("small", "monolithicSparse", 64);
    zu::P<kord::CVMDKDisk> disk = file.open();
    disk->setSyncEnabled(sync);
    long long i = 0;
    for (auto _ : state) {
        disk->seek((i++ % 64) * grainBytes + 8192);
        disk->write(grainData().data(), 4096);
        disk->flushChanges();
    }
}

// 256 compressed grains written, then rewritten `rounds` times: in one
// session flushed only at its end (mode 0), flushed after each round (1), or
// each round a session of its own (2); the file's growth is reported.
void BM_CompressedRewrites(benchmark::State& state)
{
    const long long grains = 256, rounds = state.range(0), mode = state.range(1);
    long long before = 0, after = 0, allocatedBefore = 0, allocatedAfter = 0;
    for (auto _ : state) {
        state.PauseTiming();
        BenchDisk file("rewrite", "streamOptimized", grains);
        {
            zu::P<kord::CVMDKDisk> disk = file.open();
            writeGrains(*disk, 0, grains);
        }
        before = file.fileSize();
        allocatedBefore = file.allocatedBytes();
        zu::P<kord::CVMDKDisk> disk = file.open();
        state.ResumeTiming();
        for (long long r = 0; r < rounds; ++r) {
            writeGrains(*disk, 0, grains);
            if (mode == 1) disk->flushChanges();
            if (mode == 2) {
                disk = nullptr;
                disk = file.open();
            }
        }
        disk = nullptr;
        state.PauseTiming();
        after = file.fileSize();
        allocatedAfter = file.allocatedBytes();
        state.ResumeTiming();
    }
    state.counters["sizeGrowth%"] = 100.0 * static_cast<double>(after - before) / static_cast<double>(before);
    state.counters["usedGrowth%"] =
        100.0 * static_cast<double>(allocatedAfter - allocatedBefore) / static_cast<double>(allocatedBefore);
    state.counters["usedMiB"] = static_cast<double>(allocatedAfter) / (1024 * 1024);
}

} // namespace

BENCHMARK(BM_WriteThenFlush)->ArgsProduct({{1, 64, 1024}, {0, 1}})->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_SmallFlushedWrites)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_CompressedRewrites)->ArgsProduct({{1, 4}, {0, 1, 2}})->Unit(benchmark::kMillisecond)->UseRealTime();
