// Where a range of a disk's virtual contents lies in the disk's own files:
// the answer to an allocation query, for maps that tell data, zeros and
// holes apart and name the host position of data stored as is.
#pragma once

#include "base/CURI.h"

namespace kord {

struct CVMDKDataPlace {
    enum Kind {
        // Nothing stored here: the parent's data, or zeros without a parent.
        kindUnwritten,
        // Recorded as zeros without storage (a zeroed grain), whatever the
        // parent holds.
        kindZero,
        // Stored (or about to be stored) in this disk.
        kindData,
    };

    Kind kind = kindUnwritten;
    // How many bytes from the queried position share this place (at least 1).
    long long bytes = 0;
    // Data stored as is (neither compressed nor encrypted): the file that
    // holds it and the byte offset of the queried position in it; else an
    // empty URI and -1.
    zu::CURI file;
    long long offsetBytes = -1;
};

} // namespace kord
