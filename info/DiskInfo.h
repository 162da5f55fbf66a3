// What "kord info --json" tells about a disk: its type, size, grains,
// compression, encryption, content IDs, adapter and geometry, every extent
// file, whether it was closed cleanly, the space accounting, and the same
// for every disk of its parent chain (a parent whose file is not there is
// listed as missing). Built in one place for the kord tool and the Python
// module, so that both give the same data.
#pragma once

#include "disk/CVMDKDisk.h"

#include <nlohmann/json.hpp>

#include <string>

namespace kordinfo {

using Json = nlohmann::ordered_json;

// How listings name a file: the local path of a file URI, else the URI.
std::string uriToDisplay(const zu::CURI& uri);

// The open parent of a delta disk; null for a disk without one and for a
// parent whose file is not there (isParentMissing). Other failures to open
// the parent are thrown.
kord::CVMDKDisk* openParentIfPresent(kord::CVMDKDisk* disk);
bool isParentMissing(kord::CVMDKDisk* disk);

// Reads every extent's metadata and opens the parent chain; values a disk
// made by another tool does not have are null.
Json diskInfoJson(kord::CVMDKDisk* disk);

} // namespace kordinfo
