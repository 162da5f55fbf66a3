// The sequential ways of kord convert: byte ranges through the plain
// contents (skipping what is unwritten or zero), and whole grains in
// prepared form between two disks of the same grain size and compression,
// which moves compressed grains without decompressing or recompressing
// them.
#pragma once

#include "ConvertEndpoints.h"
#include "Progress.h"

namespace kordtool {

// Copies the source's contents in chunks of chunkBytes (from `start`).
void copyPlain(IConvertSource& source, IConvertTarget& target, long long chunkBytes, long long start,
               CProgress& progress);

// Copies every whole grain in prepared form; the last grain, when the disk
// ends inside it, goes through the plain contents.
void copyPrepared(CDiskSource& source, CDiskTarget& target, CProgress& progress);

} // namespace kordtool
