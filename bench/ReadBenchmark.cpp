// Scattered reads through the library, next to the same pattern of pread()s
// on a raw image of the same contents: the read side of bench/compare.sh.
//
//   kord_bench_read DISK [RAW] [--block BYTES] [--count N] [--seed S | --step BYTES] [--rounds R]
//
// Reads N blocks at random block-aligned positions of the disk (or, with
// --step, at 0, step, 2 step, ... modulo the disk size, the pattern of
// qemu-img bench -S), on one thread, then the same positions of RAW with
// pread(). With RAW, the two take R turns (kord, pread, kord, ...), so that
// a change in the machine's state between them (writeback of another
// program's output, page cache reclaim) falls on both; the median turn of
// each is printed: "kord <block> <reads> <seconds> <IOPS>" and
// "pread ...", then the ratio. Warm the page cache first for numbers about
// the library rather than the storage.
#include "base/CLocalFileSystem.h"
#include "disk/CVMDKDisk.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

struct Options {
    std::string disk;
    std::string raw;
    long long block = 4096;
    long long count = 200000;
    unsigned seed = 1;
    long long step = 0;
    int rounds = 5;
};

Options parse(int argc, char** argv)
{
    Options options;
    std::vector<std::string> positional;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        auto value = [&] {
            if (++i >= argc) throw std::invalid_argument(arg + " needs a value");
            return std::stoll(argv[i]);
        };
        if (arg == "--block")
            options.block = value();
        else if (arg == "--count")
            options.count = value();
        else if (arg == "--step")
            options.step = value();
        else if (arg == "--rounds")
            options.rounds = static_cast<int>(value());
        else if (arg == "--seed")
            options.seed = static_cast<unsigned>(value());
        else
            positional.push_back(arg);
    }
    if (positional.empty() || positional.size() > 2 || options.block <= 0 || options.count <= 0 || options.step < 0 ||
        options.rounds <= 0)
        throw std::invalid_argument(
            "usage: kord_bench_read DISK [RAW] [--block BYTES] [--count N] [--seed S | --step BYTES] [--rounds R]");
    options.disk = positional[0];
    if (positional.size() == 2) options.raw = positional[1];
    return options;
}

std::vector<long long> positions(const Options& options, long long sizeBytes)
{
    std::mt19937_64 rng(options.seed);
    long long blocks = sizeBytes / options.block;
    if (blocks <= 0) throw std::invalid_argument("the disk is smaller than one block");
    std::vector<long long> out(static_cast<size_t>(options.count));
    long long next = 0;
    for (long long& at : out) {
        if (options.step == 0) {
            at = static_cast<long long>(rng() % static_cast<unsigned long long>(blocks)) * options.block;
            continue;
        }
        at = next;
        next = (next + options.step) % sizeBytes;
        if (next + options.block > sizeBytes) next = 0;
    }
    return out;
}

template <class Read>
double timeReads(const std::vector<long long>& at, Read read)
{
    auto start = std::chrono::steady_clock::now();
    for (long long position : at) read(position);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> seconds)
{
    std::sort(seconds.begin(), seconds.end());
    return seconds[seconds.size() / 2];
}

double report(const char* what, const Options& options, double seconds)
{
    double iops = static_cast<double>(options.count) / seconds;
    std::printf("%s %lld %lld %.4f %.0f\n", what, options.block, options.count, seconds, iops);
    return iops;
}

} // namespace

int main(int argc, char** argv)
{
    try {
        Options options = parse(argc, argv);
        zu::P<zu::IFileSystem> fs = zu::newObj<zu::CLocalFileSystem>();
        zu::P<kord::CVMDKDisk> disk = kord::CVMDKDisk::openAny(
            fs, zu::CLocalFileSystem::pathToURI(zu::String(options.disk)).toNormalized(), zu::IIOStream::accessRead,
            zu::String(std::getenv("KORD_PASSWORD") ? std::getenv("KORD_PASSWORD") : ""));
        std::vector<long long> at = positions(options, disk->getDiskSizeBytes());
        std::vector<unsigned char> buffer(static_cast<size_t>(options.block));
        auto kordRead = [&](long long position) {
            disk->seek(position);
            disk->read(buffer.data(), static_cast<int>(options.block));
        };
        if (options.raw.empty()) {
            report("kord", options, timeReads(at, kordRead));
            return 0;
        }
        int fd = ::open(options.raw.c_str(), O_RDONLY);
        if (fd < 0) throw std::runtime_error("cannot open " + options.raw);
        auto rawRead = [&](long long position) {
            if (::pread(fd, buffer.data(), buffer.size(), position) != static_cast<ssize_t>(buffer.size()))
                throw std::runtime_error("short pread");
        };
        std::vector<double> kordSeconds, preadSeconds;
        for (int round = 0; round < options.rounds; ++round) {
            kordSeconds.push_back(timeReads(at, kordRead));
            preadSeconds.push_back(timeReads(at, rawRead));
        }
        ::close(fd);
        double kordIOPS = report("kord", options, median(kordSeconds));
        double preadIOPS = report("pread", options, median(preadSeconds));
        std::printf("ratio %.2f\n", kordIOPS / preadIOPS);
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "kord_bench_read: %s\n", e.what());
        return 2;
    }
}
