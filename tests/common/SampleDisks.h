// Disks of every kind kord makes, with data in some grains and none in
// others, for the tests of the programs that serve disks (nbdkit, FUSE):
// what they serve must be what "kord cat" reads.
#pragma once

#include "disk/DiskTestUtil.h"

#include <nlohmann/json.hpp>

namespace kordtest {

struct CSampleDisk {
    std::string file;
    // Not empty for the encrypted disk; also in the file "password.txt".
    std::string password;
};

constexpr long long sampleDiskBytes = 8LL << 20;
constexpr const char* samplePassword = "sample-secret";

// monolithicSparse, twoGbMaxExtentSparse, streamOptimized, an encrypted
// streamOptimized disk, and a delta disk of the first with changes of its own.
inline std::vector<CSampleDisk> makeSampleDisks(const std::string& dir)
{
    using namespace disktest;
    zu::P<zu::IFileSystem> fs = zu::newObj<zu::CLocalFileSystem>();
    auto fill = [](CVMDKDisk& disk, unsigned seed) {
        writeAt(disk, 0, pattern(100000, seed));
        writeAt(disk, (1 << 20) + 1234, pattern(300000, seed + 1));
        writeAt(disk, 5 << 20, pattern(grainBytes, seed + 2));
        writeAt(disk, sampleDiskBytes - sector, pattern(sector, seed + 3));
        disk.flushChanges();
    };
    const long long sectors = sampleDiskBytes / sector;
    std::vector<CSampleDisk> disks = {{"monolithic.vmdk", ""}, {"split.vmdk", ""}, {"stream.vmdk", ""},
                                      {"encrypted.vmdk", samplePassword}, {"delta.vmdk", ""}};
    const char* types[] = {"monolithicSparse", "twoGbMaxExtentSparse", "streamOptimized", "streamOptimized"};
    for (int i = 0; i < 4; ++i)
        fill(*CVMDKDisk::create(fs, fileURI(dir + "/" + disks[i].file), params(types[i], sectors, disks[i].password)),
             static_cast<unsigned>(10 * i));
    zu::P<CVMDKDisk> delta =
        CVMDKDisk::create(fs, fileURI(dir + "/delta.vmdk"), params("monolithicSparse", 0, "", fileURI(dir + "/monolithic.vmdk")));
    writeAt(*delta, 50000, pattern(70000, 90));
    writeAt(*delta, 3 << 20, pattern(grainBytes * 2, 91));
    delta->flushChanges();
    putFile(dir + "/password.txt", std::string(samplePassword) + "\n");
    return disks;
}

// Runs the kord program of this build in `dir` with the sample password at
// hand; expects success and returns its standard output.
inline std::string kordIn(const std::string& dir, const std::string& args)
{
    std::string out;
    EXPECT_EQ(0, runCommand("cd '" + dir + "' && KORD_PASSWORD=" + samplePassword + " '" KORD_BINARY_DIR
                            "/tools/kord' " + args + " 2>/dev/null", &out))
        << args << "\n" << out;
    return out;
}

// Byte ranges (offset, length), sorted, neighbours and overlaps merged.
using Ranges = std::vector<std::pair<long long, long long>>;

inline Ranges merged(Ranges ranges)
{
    std::sort(ranges.begin(), ranges.end());
    Ranges out;
    for (const auto& range : ranges) {
        if (!out.empty() && range.first <= out.back().first + out.back().second)
            out.back().second = std::max(out.back().second, range.first + range.second - out.back().first);
        else
            out.push_back(range);
    }
    return out;
}

// What some disk of the chain holds according to "kord map --json".
inline Ranges kordMapRanges(const std::string& json)
{
    Ranges ranges;
    for (const auto& entry : nlohmann::json::parse(json))
        if (entry["present"].get<bool>())
            ranges.emplace_back(entry["start"].get<long long>(), entry["length"].get<long long>());
    return merged(ranges);
}

} // namespace kordtest
