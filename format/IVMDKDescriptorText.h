// What the extent layout code needs of a descriptor: writing itself as text
// into an area of fixed size. The descriptor model lives above the format
// layer; this interface keeps the dependency pointing one way.
#pragma once

#include "base/CBase.h"
#include "base/IIOStream.h"
#include "base/TBuffer.h"

namespace kord {

class IVMDKDescriptorText : public virtual zu::IBase {
public:
    // Writes the text and then zero padding from padBuffer, exactly
    // targetSize bytes in all. Throws zu::CError (before writing) when the
    // text does not fit or padBuffer is too small.
    virtual void store(zu::IOutStream& stream, int targetSize, const zu::TBuffer<unsigned char>& padBuffer) = 0;
};

} // namespace kord
