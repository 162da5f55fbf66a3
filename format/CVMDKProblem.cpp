#include "format/CVMDKProblem.h"

namespace kord {

const char* CVMDKProblem::getKindName(Kind kind)
{
    switch (kind) {
    case kindRefused: return "refused";
    case kindDirectoriesDisagree: return "directoriesDisagree";
    case kindTablesOverlap: return "tablesOverlap";
    case kindGrainInMetadata: return "grainInMetadata";
    case kindGrainPastEnd: return "grainPastEnd";
    case kindGrainsOverlap: return "grainsOverlap";
    case kindBadGrainHeader: return "badGrainHeader";
    case kindSlotTooSmall: return "slotTooSmall";
    case kindDamagedTrail: return "damagedTrail";
    case kindCapacityTooSmall: return "capacityTooSmall";
    case kindUncleanShutdown: return "uncleanShutdown";
    case kindParentChanged: return "parentChanged";
    case kindExtentMismatch: return "extentMismatch";
    case kindBadGrainData: return "badGrainData";
    case kindGrainLBAMismatch: return "grainLBAMismatch";
    case kindDescriptorFull: return "descriptorFull";
    case kindLeakedSpace: return "leakedSpace";
    }
    return "unknown";
}

void throwVMDKProblem(const CVMDKProblem& problem) { throw problem.toError(); }

} // namespace kord
