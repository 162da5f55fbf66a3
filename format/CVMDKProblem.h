// One piece of damage found in the files of a disk: its kind, and the
// message and properties of the error that the library refuses the file
// with.
//
// Checks report problems to a sink instead of throwing them themselves, so
// that one set of checks serves two callers: the library's own sink
// (throwVMDKProblem) throws the first problem as zu::CIOError code 5 and so
// refuses to go on, while the checker's sink lists every problem and lets
// the check continue.
#pragma once

#include "base/CIOError.h"

#include <functional>

namespace kord {

struct CVMDKProblem {
    // Stable names for reports: see getKindName.
    enum Kind {
        kindRefused,             // the library refuses to open the disk or extent
        kindDirectoriesDisagree, // a grain table and its redundant copy differ
        kindTablesOverlap,       // directories or tables share sectors
        kindGrainInMetadata,     // a grain entry points before the grain area
        kindGrainPastEnd,        // a grain lies (partly) past the end of the file
        kindGrainsOverlap,       // two grains' slots share sectors
        kindBadGrainHeader,      // a compressed grain's LBA or size does not fit
        kindSlotTooSmall,        // a slot is smaller than its grain's data
        kindDamagedTrail,        // a stream-optimized file does not end with its trail
        kindCapacityTooSmall,    // header capacity below the descriptor's extent line
        kindUncleanShutdown,     // the extent was not closed cleanly
        kindParentChanged,       // the parent's content ID is not the one the child expects
        kindExtentMismatch,      // an extent's grain size or compression differs from the disk's
        kindBadGrainData,        // a compressed grain's data does not expand to a grain
        kindGrainLBAMismatch,    // a compressed grain's header names another grain
        kindDescriptorFull,      // an embedded descriptor has no room for a new content ID
        kindLeakedSpace,         // the file holds sectors behind all metadata and grains that nothing uses
    };

    Kind kind;
    zu::String message;
    zu::CProps props;

    // "refused", "directoriesDisagree", ...
    static const char* getKindName(Kind kind);
    zu::CIOError toError() const { return zu::CIOError(zu::CIOError::codeInvalidData, message, props); }
};

using VMDKProblemSink = std::function<void(const CVMDKProblem&)>;

// The library's sink: refuses by throwing the problem.
[[noreturn]] void throwVMDKProblem(const CVMDKProblem& problem);

} // namespace kord
