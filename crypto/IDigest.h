// Message digests (hashes).
#pragma once

#include "base/CBase.h"
#include "base/String.h"
#include "base/TBuffer.h"

namespace pell {

class IDigest : public virtual zu::IBase {
public:
    virtual void update(const void* data, long long bytes) = 0;
    // Ends the computation; the result is then available. update after
    // finish throws zu::CError.
    virtual void finish() = 0;
    virtual int getResultLength() const = 0;
    // Valid after finish().
    virtual const unsigned char* getResult() const = 0;
};

// Makes digest objects of one algorithm.
class IDigestType : public virtual zu::IBase {
public:
    virtual zu::String getID() const = 0;
    virtual int getResultLength() const = 0;
    virtual zu::P<IDigest> createDigest() const = 0;
};

} // namespace pell
