// Sequential 64 KiB writes and reads through one sparse extent file on the
// local file system (uncompressed, compressed at level 1, encrypted), next to
// plain pwrite/pread of the same sizes on the same file system, so that the
// library's own cost shows as the difference. Each iteration moves the whole
// 256 MiB file; writes start from a new empty extent each time.
#include "base/CLocalFileSystem.h"
#include "crypto/CCipher_AES256CBC.h"
#include "crypto/CDigestType_SHA256.h"
#include "descriptor/CVMDKContentIDUpdater.h"
#include "descriptor/CVMDKDescriptor.h"
#include "extent/CVMDKSparseExtentFile.h"
#include "format/CVMDKLowLevelFileStream.h"
#include "format/VMDKEmptyLayout.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <unistd.h>

#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr long long chunkBytes = 64 * 1024;
constexpr long long fileBytes = 256LL * 1024 * 1024;
constexpr long long grainSectors = 128;
constexpr long long sampleBytes = 4 * 1024 * 1024;

enum class Kind { plain, compressed, encrypted };

std::string benchPath(const std::string& name)
{
    return "/tmp/kord-bench-" + std::to_string(getpid()) + "-" + name;
}

zu::CURI pathURI(const std::string& path) { return zu::CLocalFileSystem::pathToURI(zu::String(path)); }

// What disks hold: runs of text-like data that deflate shrinks a lot, and
// runs of random bytes that it cannot, in 4 KiB blocks; level 1 makes the
// whole about half its size.
const std::vector<unsigned char>& sampleData()
{
    static const std::vector<unsigned char> data = [] {
        static const char* const words[] = {"block ", "inode ", "0x7f3a ", "kernel ", "user ", "data ", "\n", "= "};
        std::vector<unsigned char> out(sampleBytes);
        std::mt19937 rng(1);
        for (long long block = 0; block < sampleBytes; block += 4096) {
            bool text = (rng() % 2) == 0;
            for (long long i = block; i < block + 4096;) {
                if (!text) {
                    out[i++] = static_cast<unsigned char>(rng());
                    continue;
                }
                for (const char* w = words[rng() % 8]; *w && i < block + 4096; ++w) out[i++] = static_cast<unsigned char>(*w);
            }
        }
        return out;
    }();
    return data;
}

zu::TCryptBuffer<unsigned char> benchKey()
{
    zu::TCryptBuffer<unsigned char> key(32);
    for (int i = 0; i < 32; ++i) key[i] = static_cast<unsigned char>(i * 13 + 5);
    return key;
}

// One extent file of fileBytes with an embedded descriptor, and an extent
// object on it.
class BenchExtent {
public:
    BenchExtent(Kind kind, const std::string& name) : kind(kind), uri(pathURI(benchPath(name))) {}
    ~BenchExtent() { fs->deleteFile(uri, true); }

    void create()
    {
        fs->deleteFile(uri, true);
        const std::string text = "# Disk DescriptorFile\nversion=1\nCID=12345678\nparentCID=ffffffff\n"
                                 "createType=\"monolithicSparse\"\n";
        zu::TBuffer<unsigned char> bytes(reinterpret_cast<const unsigned char*>(text.data()),
                                         static_cast<long long>(text.size()));
        descriptor = zu::newObj<kord::CVMDKDescriptor>(bytes);
        zu::TBuffer<unsigned char> zeros;
        zeros.setUsedFill(65536, 0);
        zu::TBuffer<unsigned char> keyHash;
        if (kind == Kind::encrypted) {
            zu::TCryptBuffer<unsigned char> key = benchKey();
            keyHash = pell::CDigestType_SHA256::hash(key.getData(), key.getUsed());
        }
        kord::createEmptyVMDKSparseExtentFile(fs, uri, kind == Kind::compressed, fileBytes / 512,
                                              grainSectors, zeros, descriptor, 20, keyHash);
    }

    zu::P<kord::CVMDKSparseExtentFile> open(int access)
    {
        zu::P<zu::IIOStream> stream = kord::openVMDKFileStream(fs, uri, access);
        zu::P<pell::ICipher> cipher;
        zu::TCryptBuffer<unsigned char> key;
        zu::TBuffer<unsigned char> iv;
        if (kind == Kind::encrypted) {
            cipher = zu::newObj<pell::CCipher_AES256CBC>();
            key = benchKey();
            iv.setUsedFill(16, 0x3C);
        }
        zu::P<kord::CVMDKContentIDUpdater> updater = zu::newObj<kord::CVMDKContentIDUpdater>(fs, uri, descriptor);
        return zu::newObj<kord::CVMDKSparseExtentFile>(stream, access, 0, 1,
                                                       zu::newObj<kord::CVMDKGrainTableCache>(1024), nullptr, updater,
                                                       cipher, key, iv);
    }

private:
    Kind kind;
    zu::CURI uri;
    zu::P<zu::IFileSystem> fs = zu::newObj<zu::CLocalFileSystem>();
    zu::P<kord::CVMDKDescriptor> descriptor;
};

// Without syncs, like the plain pwrite it is compared with (the cost of
// syncing is DurabilityBenchmark's).
void writeAll(kord::IVMDKExtentFile& extent)
{
    extent.setSyncEnabled(false);
    const unsigned char* data = sampleData().data();
    for (long long pos = 0; pos < fileBytes; pos += chunkBytes)
        extent.write(data + pos % sampleBytes, static_cast<int>(chunkBytes));
    extent.flushChanges();
}

void BM_ExtentWrite(benchmark::State& state, Kind kind, const char* name)
{
    BenchExtent file(kind, std::string("w-") + name);
    for (auto _ : state) {
        state.PauseTiming();
        file.create();
        zu::P<kord::CVMDKSparseExtentFile> extent = file.open(zu::IIOStream::accessReadWrite);
        state.ResumeTiming();
        writeAll(*extent);
        extent = nullptr;
    }
    state.SetBytesProcessed(state.iterations() * fileBytes);
}

void BM_ExtentRead(benchmark::State& state, Kind kind, const char* name)
{
    BenchExtent file(kind, std::string("r-") + name);
    file.create();
    writeAll(*file.open(zu::IIOStream::accessReadWrite));
    std::vector<unsigned char> buffer(chunkBytes);
    for (auto _ : state) {
        state.PauseTiming();
        zu::P<kord::CVMDKSparseExtentFile> extent = file.open(zu::IIOStream::accessRead);
        state.ResumeTiming();
        for (long long pos = 0; pos < fileBytes; pos += chunkBytes)
            extent->read(buffer.data(), static_cast<int>(chunkBytes));
        benchmark::DoNotOptimize(buffer.data());
    }
    state.SetBytesProcessed(state.iterations() * fileBytes);
}

int openRaw(const std::string& path, int flags)
{
    int fd = ::open(path.c_str(), flags, 0600);
    if (fd < 0) throw std::runtime_error("cannot open " + path);
    return fd;
}

void BM_RawWrite(benchmark::State& state)
{
    const std::string path = benchPath("raw-w");
    const unsigned char* data = sampleData().data();
    for (auto _ : state) {
        state.PauseTiming();
        ::unlink(path.c_str());
        int fd = openRaw(path, O_RDWR | O_CREAT | O_TRUNC);
        state.ResumeTiming();
        for (long long pos = 0; pos < fileBytes; pos += chunkBytes)
            if (::pwrite(fd, data + pos % sampleBytes, chunkBytes, pos) != chunkBytes) state.SkipWithError("pwrite");
        ::close(fd);
    }
    ::unlink(path.c_str());
    state.SetBytesProcessed(state.iterations() * fileBytes);
}

void BM_RawRead(benchmark::State& state)
{
    const std::string path = benchPath("raw-r");
    int fd = openRaw(path, O_RDWR | O_CREAT | O_TRUNC);
    for (long long pos = 0; pos < fileBytes; pos += chunkBytes)
        if (::pwrite(fd, sampleData().data() + pos % sampleBytes, chunkBytes, pos) != chunkBytes)
            state.SkipWithError("pwrite");
    std::vector<unsigned char> buffer(chunkBytes);
    for (auto _ : state) {
        for (long long pos = 0; pos < fileBytes; pos += chunkBytes)
            if (::pread(fd, buffer.data(), chunkBytes, pos) != chunkBytes) state.SkipWithError("pread");
        benchmark::DoNotOptimize(buffer.data());
    }
    ::close(fd);
    ::unlink(path.c_str());
    state.SetBytesProcessed(state.iterations() * fileBytes);
}

} // namespace

BENCHMARK(BM_RawWrite)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_ExtentWrite, uncompressed, Kind::plain, "plain")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_ExtentWrite, compressed, Kind::compressed, "compressed")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_ExtentWrite, encrypted, Kind::encrypted, "encrypted")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RawRead)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_ExtentRead, uncompressed, Kind::plain, "plain")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_ExtentRead, compressed, Kind::compressed, "compressed")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_ExtentRead, encrypted, Kind::encrypted, "encrypted")->Unit(benchmark::kMillisecond)->UseRealTime();
