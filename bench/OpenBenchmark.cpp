// What a writer pays for the checks of a disk's metadata on the largest
// disk a sparse extent can address: a monolithic disk of 2 TiB less 512 MiB
// whose every grain (64 KiB, 33.5 million of them, 65,520 grain tables) is
// written. The file is sparse: its tables are real (256 MiB), its grain data
// is a hole. Measured: opening it read-only and read-write and reading one
// sector (the read-write open checks the metadata layout), and the first
// write, which reads and checks every grain table once.
//
//   kord_bench_open [--benchmark_filter=...]     (about 1 GiB free in /tmp)
#include "base/CLocalFileSystem.h"
#include "disk/CVMDKDisk.h"
#include "format/VMDKEmptyLayout.h"
#include "format/VMDKMarker.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr long long grainSectors = 128;
constexpr long long capacitySectors = (1LL << 32) - (1LL << 20);
constexpr long long entriesPerTable = 512;

std::uint64_t loadLE64(const unsigned char* p)
{
    std::uint64_t v = 0;
    for (int i = 7; i >= 0; --i) v = v << 8 | p[i];
    return v;
}

void preadAll(int fd, void* data, size_t bytes, off_t at)
{
    if (::pread(fd, data, bytes, at) != static_cast<ssize_t>(bytes)) throw std::runtime_error("pread failed");
}

void pwriteAll(int fd, const void* data, size_t bytes, off_t at)
{
    if (::pwrite(fd, data, bytes, at) != static_cast<ssize_t>(bytes)) throw std::runtime_error("pwrite failed");
}

// Points every entry of both copies of every table at the next grain slot
// behind the metadata, and makes the file as long as the slots need.
void fillTables(const std::string& path)
{
    int fd = ::open(path.c_str(), O_RDWR);
    if (fd < 0) throw std::runtime_error("cannot open " + path);
    unsigned char header[512];
    preadAll(fd, header, sizeof header, 0);
    long long rgd = static_cast<long long>(loadLE64(header + 48));
    long long gd = static_cast<long long>(loadLE64(header + 56));
    long long overHead = static_cast<long long>(loadLE64(header + 64));
    long long grains = capacitySectors / grainSectors;
    long long tables = grains / entriesPerTable;
    std::vector<std::uint32_t> directory(static_cast<size_t>(tables)), entries(entriesPerTable);
    for (long long directoryAt : {gd, rgd}) {
        preadAll(fd, directory.data(), directory.size() * 4, directoryAt * 512);
        for (long long t = 0; t < tables; ++t) {
            for (long long i = 0; i < entriesPerTable; ++i)
                entries[static_cast<size_t>(i)] =
                    static_cast<std::uint32_t>(overHead + (t * entriesPerTable + i) * grainSectors);
            pwriteAll(fd, entries.data(), entries.size() * 4, directory[static_cast<size_t>(t)] * 512LL);
        }
    }
    if (::ftruncate(fd, (overHead + grains * grainSectors) * 512) != 0) throw std::runtime_error("ftruncate failed");
    ::close(fd);
}

struct CFullDisk {
    CFullDisk() : path("/tmp/kord-bench-" + std::to_string(getpid()) + "-full.vmdk")
    {
        kord::CVMDKDisk::CCreateParams params;
        params.capacitySectors = capacitySectors;
        params.grainSizeSectors = grainSectors;
        kord::CVMDKDisk::create(fs, uri(), params);
        fillTables(path);
    }
    ~CFullDisk()
    {
        std::remove(path.c_str());
        std::remove((path + ".lock").c_str());
    }
    zu::CURI uri() const { return zu::CLocalFileSystem::pathToURI(zu::String(path)); }
    zu::P<kord::CVMDKDisk> open(int access) const
    {
        return zu::newObj<kord::CVMDKDisk>(fs, uri(), access, zu::String(), -1, nullptr, nullptr);
    }

    zu::P<zu::IFileSystem> fs = zu::newObj<zu::CLocalFileSystem>();
    std::string path;
};

const CFullDisk& fullDisk()
{
    static const CFullDisk disk;
    return disk;
}

void openAndRead(benchmark::State& state, int access)
{
    const CFullDisk& disk = fullDisk();
    unsigned char sector[512];
    for (auto _ : state) {
        zu::P<kord::CVMDKDisk> d = disk.open(access);
        d->seek(capacitySectors * 512 - 512);
        d->read(sector, sizeof sector);
        benchmark::DoNotOptimize(sector);
    }
}

void BM_OpenAndReadFull2TiBReadOnly(benchmark::State& state) { openAndRead(state, zu::IIOStream::accessRead); }
void BM_OpenAndReadFull2TiBReadWrite(benchmark::State& state) { openAndRead(state, zu::IIOStream::accessReadWrite); }

// Opening read-write and writing one sector in place: the first change
// checks every grain table.
void BM_FirstWriteFull2TiB(benchmark::State& state)
{
    const CFullDisk& disk = fullDisk();
    unsigned char sector[512] = {1};
    for (auto _ : state) {
        zu::P<kord::CVMDKDisk> d = disk.open(zu::IIOStream::accessReadWrite);
        d->seek(0);
        d->write(sector, sizeof sector);
        d->flushChanges();
    }
}

} // namespace

BENCHMARK(BM_OpenAndReadFull2TiBReadOnly)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OpenAndReadFull2TiBReadWrite)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FirstWriteFull2TiB)->Unit(benchmark::kMillisecond);
