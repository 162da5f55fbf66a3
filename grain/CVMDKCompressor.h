// The deflate engine of compressed grains: a fast primary compressor with a
// stored-only fallback, so that a compressed grain never needs more sectors
// than its stored-only form. Streams are zlib-format (RFC 1950), as VMDK
// readers expect.
#pragma once

#include "base/ISimpleCompressor.h"

namespace kord {

class CVMDKCompressor : public zu::CBase, public zu::ISimpleCompressor {
public:
    // Level -1 means the default, 1 (fastest). 0 stores only. 1..12 use the
    // primary engine at that level (1..9 as in zlib, 10..12 slower and
    // smaller still). Other values throw zu::CInvalidArgError.
    explicit CVMDKCompressor(int level);

    // The stored-only form's bound b, or the largest size that still fits in
    // the sectors b takes with the 12-byte grain header, whichever is larger.
    int getCompressedSizeUpperBound(int sourceBytes) const override;
    // Falls back to stored-only output when the primary fails or its output
    // exceeds the bound; counts those grains.
    int compressSingleStep(const void* source, int sourceBytes, void* target, int targetCapacity) override;
    int decompressSingleStep(const void* source, int sourceBytes, void* target, int targetCapacity) override;
    zu::String getInternalDesc() const override;

    int getLevel() const { return level; }
    unsigned long long getFallbackCount() const { return fallbackCount; }

private:
    int level;
    zu::P<zu::ISimpleCompressor> fallback;
    zu::P<zu::ISimpleCompressor> primary;
    unsigned long long fallbackCount = 0;
};

} // namespace kord
