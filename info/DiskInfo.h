// What "kord info --json" tells about a disk: its type, size, grains,
// compression, encryption, content IDs, adapter and geometry, every extent
// file, the space accounting, and the same for every disk of its parent
// chain. Built in one place for the kord tool and the Python module, so that
// both give the same data.
#pragma once

#include "disk/CVMDKDisk.h"

#include <nlohmann/json.hpp>

#include <string>

namespace kordinfo {

using Json = nlohmann::ordered_json;

// How listings name a file: the local path of a file URI, else the URI.
std::string uriToDisplay(const zu::CURI& uri);

// Reads every extent's metadata and opens the parent chain; values a disk
// made by another tool does not have are null.
Json diskInfoJson(kord::CVMDKDisk* disk);

} // namespace kordinfo
