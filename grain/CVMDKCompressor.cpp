#include "grain/CVMDKCompressor.h"

#include "base/CDeflateCompressor.h"
#include "base/CError.h"
#include "format/VMDKMarker.h"

#include <algorithm>

namespace kord {

namespace {

constexpr int grainHeaderBytes = 12;
constexpr int maxLevel = 12;

int checkedLevel(int level)
{
    if (level == -1) return 1;
    if (level < 0 || level > maxLevel)
        throw zu::CInvalidArgError("CVMDKCompressor constructor", "Invalid compression level: " + zu::toString(level));
    return level;
}

} // namespace

CVMDKCompressor::CVMDKCompressor(int level)
    : level(checkedLevel(level)), fallback(zu::newObj<zu::CZlibCompressor>(0))
{
    if (this->level == 0)
        primary = fallback;
    else
        primary = zu::newObj<zu::CLibdeflateCompressor>(this->level);
}

int CVMDKCompressor::getCompressedSizeUpperBound(int sourceBytes) const
{
    int b = fallback->getCompressedSizeUpperBound(sourceBytes);
    int roundedUp = (b + vmdkSectorSize - 1) / vmdkSectorSize * vmdkSectorSize;
    return std::max(b, roundedUp - grainHeaderBytes);
}

int CVMDKCompressor::compressSingleStep(const void* source, int sourceBytes, void* target, int targetCapacity)
{
    int result = -1;
    try {
        result = primary->compressSingleStep(source, sourceBytes, target, targetCapacity);
    } catch (const std::exception&) {
        if (level == 0) throw;
    }
    if (result != -1 && (result <= sourceBytes || result <= getCompressedSizeUpperBound(sourceBytes))) return result;
    ++fallbackCount;
    return fallback->compressSingleStep(source, sourceBytes, target, targetCapacity);
}

int CVMDKCompressor::decompressSingleStep(const void* source, int sourceBytes, void* target, int targetCapacity)
{
    return primary->decompressSingleStep(source, sourceBytes, target, targetCapacity);
}

zu::String CVMDKCompressor::getInternalDesc() const { return "smart-" + primary->getInternalDesc(); }

} // namespace kord
