// SHA-256 over OpenSSL's libcrypto (32-byte result, identifier "sha256").
#pragma once

#include "crypto/IDigest.h"

namespace pell {

class CDigestType_SHA256 : public zu::CBase, public IDigestType {
public:
    zu::String getID() const override { return zu::String("sha256"); }
    int getResultLength() const override { return 32; }
    zu::P<IDigest> createDigest() const override;

    // Convenience: the digest of one buffer.
    static zu::TBuffer<unsigned char> hash(const void* data, long long bytes);
};

} // namespace pell
