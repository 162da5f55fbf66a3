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
// streamOptimized disk, and a delta disk of the first with changes of its
// own, made by the kord program: data at the start, across grains, in one
// whole grain and in the last sector, each from its own part of the random
// bytes, so that a write or read at the wrong place shows.
inline std::vector<CSampleDisk> makeSampleDisks(const std::string& dir)
{
    disktest::putFile(dir + "/password.txt", std::string(samplePassword) + "\n");
    runIn(dir, "K='" KORD_BINARY_DIR "/tools/kord' && export KORD_PASSWORD=" + std::string(samplePassword) +
                   " && head -c 700000 /dev/urandom >sample.bin && w() { tail -c +$4 sample.bin | head -c $3 | $K write --offset $2 $1 -; }"
                   " && for d in monolithicSparse:monolithic twoGbMaxExtentSparse:split streamOptimized:stream "
                   "'streamOptimized --encrypt --password-file password.txt:encrypted'; do f=${d##*:}.vmdk && "
                   "$K create -t ${d%:*} $f 8M && w $f 0 100000 1 && w $f 1049810 300000 100001 && "
                   "w $f 5M 65536 400001 && w $f 8388096 512 465537; done && $K create -b monolithic.vmdk delta.vmdk && "
                   "w delta.vmdk 50000 70000 466049 && w delta.vmdk 3M 131072 536049");
    return {{"monolithic.vmdk", ""}, {"split.vmdk", ""}, {"stream.vmdk", ""}, {"encrypted.vmdk", samplePassword},
            {"delta.vmdk", ""}};
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
