// One line of a VMDK text descriptor. The descriptor keeps every line, in
// order, as one of these: a name/value pair, an extent description, or any
// other line kept verbatim.
#pragma once

#include "base/CBase.h"
#include "base/String.h"

namespace kord {

class CVMDKDescriptorEntry : public zu::CBase {
public:
    // The line's text without a line end.
    virtual zu::String toString() const = 0;
    // An independent deep copy.
    virtual zu::P<CVMDKDescriptorEntry> cloneDescriptorEntry() const = 0;
};

} // namespace kord
