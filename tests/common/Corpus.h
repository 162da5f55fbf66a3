// The VMDK files that other software wrote, kept beside the project
// (../shared/vmdk-corpus, gzip-compressed, with the expected size and
// SHA-256 of each disk's contents), and the stream converter kept beside
// them as a black-box oracle (../shared/oracles/vmdk-convert). Tests skip
// where they are missing.
#pragma once

#include "common/TestUtil.h"

#include <filesystem>
#include <fstream>

namespace kordtest {

struct CorpusDisk {
    std::string id;
    std::string mainFile;
    long long size;
    std::string sha256;
};

inline std::string sharedPath(const std::string& name)
{
    std::string path = std::string(KORD_SOURCE_DIR) + "/../shared/" + name;
    return std::filesystem::exists(path) ? path : std::string();
}

// The rows of expected.tsv; empty when the corpus is not there.
inline std::vector<CorpusDisk> corpusDisks()
{
    std::vector<CorpusDisk> disks;
    std::string dir = sharedPath("vmdk-corpus");
    if (dir.empty()) return disks;
    std::ifstream in(dir + "/expected.tsv");
    std::string names; // the column names
    std::getline(in, names);
    for (CorpusDisk d; in >> d.id >> d.mainFile >> d.size >> d.sha256;) disks.push_back(d);
    return disks;
}

// Unpacks every file of the disk into `dir`/<id>/ and returns that folder.
inline std::string unpackCorpusDisk(const CorpusDisk& disk, const std::string& dir)
{
    runIn(dir, "mkdir " + disk.id + " && for f in '" + sharedPath("vmdk-corpus") + "/" + disk.id +
                   "'/*.gz; do gunzip -c \"$f\" >" + disk.id + "/\"$(basename \"$f\" .gz)\"; done");
    return dir + "/" + disk.id;
}

} // namespace kordtest
