// One-shot compression of a whole block held in memory, and the deflate
// engines behind it. Grains are compressed one at a time, so no streaming
// interface is needed.
#pragma once

#include "base/CBase.h"
#include "base/String.h"

namespace zu {

class ISimpleCompressor : public virtual IBase {
public:
    // The largest compressed size any input of sourceBytes can produce.
    virtual int getCompressedSizeUpperBound(int sourceBytes) const = 0;
    // Compresses into target; returns the compressed size, or -1 when the
    // result does not fit in targetCapacity.
    virtual int compressSingleStep(const void* source, int sourceBytes, void* target, int targetCapacity) = 0;
    // Decompresses one complete compressed stream; data after the end of the
    // stream is ignored. Returns the bytes produced. Corrupt input, or output
    // that would exceed targetCapacity, throws CIOError codeInvalidData with
    // the engine's own description of the problem.
    virtual int decompressSingleStep(const void* source, int sourceBytes, void* target, int targetCapacity) = 0;
    // Names the engine and its level, e.g. "libdeflate-zlib-1".
    virtual String getInternalDesc() const = 0;
};

} // namespace zu
