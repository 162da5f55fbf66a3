// Space accounting of an extent or a whole disk, in bytes.
#pragma once

#include "base/CBase.h"

namespace kord {

class CVMDKSpaceInfo : public zu::CBase {
public:
    // Grain size times the number of written grains.
    long long payloadSize = 0;
    // What those grains take in the files (their slots).
    long long payloadSizeInFile = 0;
    // Header and metadata before the grain data.
    long long headerSize = 0;
    // File bytes that are neither header nor live grain data.
    long long deadSpace = 0;

    void addSpaceInfo(const CVMDKSpaceInfo& other)
    {
        payloadSize += other.payloadSize;
        payloadSizeInFile += other.payloadSizeInFile;
        headerSize += other.headerSize;
        deadSpace += other.deadSpace;
    }
};

} // namespace kord
