// What supplies each range of a disk's virtual contents: the disk itself,
// a disk of its parent chain (its depth), or none; where the data lies in
// its file, and whether a missing parent would have supplied it. The map of
// kord map, and the ranges kord compare need not read.
#pragma once

#include "disk/CVMDKDisk.h"

#include <vector>

namespace kordtool {

class CChainMap {
public:
    // One run of the map. depth: the disk of the chain that supplies the
    // bytes (0 the disk itself); for bytes no disk holds, the deepest disk,
    // or the missing parent's depth.
    struct CEntry {
        long long start = 0;
        long long length = 0;
        int depth = 0;
        bool present = false;
        bool zero = true;
        bool data = false;
        // The parent that would supply the bytes is missing: what they
        // read as is unknown.
        bool missing = false;
        zu::CURI file;
        long long offset = -1;

        // The same kind of run, and for data the next bytes of the file.
        bool continues(const CEntry& previous) const;
    };

    // Opens the parent chain below `top` as far as its files are there.
    explicit CChainMap(kord::CVMDKDisk* top);

    const zu::CURI& getMissingParent() const { return missingParent; }
    // The run at `position` (before the top disk's end): the first disk of
    // the chain that holds the bytes decides, over the run every disk asked
    // agrees on. Reads at most a grain table of each disk asked.
    CEntry entryAt(long long position) const;

private:
    zu::P<kord::CVMDKDisk> top;
    // Top first; the parents are held by the disks below them.
    std::vector<kord::CVMDKDisk*> disks;
    zu::CURI missingParent;
};

} // namespace kordtool
