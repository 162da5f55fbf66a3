// File names inside descriptors (extent lines, the parent's name hint) are
// written relative to the descriptor's own folder, on Windows or on Unix,
// in either platform's syntax. This turns them into URIs.
#pragma once

#include "base/CURI.h"

namespace kord {

// Resolves `reference` against `baseDirectory` (the folder of the descriptor
// that names it), normalised. Drive paths ("C:\..."), names starting with two
// separators and names containing backslashes are read as Windows paths;
// everything else as a Unix path. A malformed Windows path throws
// zu::CBadPathError.
zu::CURI vmdkFileReferenceToURI(const zu::CURI& baseDirectory, const zu::String& reference);

} // namespace kord
