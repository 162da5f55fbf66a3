#include "crypto/KeyDerivation.h"

#include "crypto/OpenSSLError.h"

#include <openssl/evp.h>

#include <climits>

namespace pell {

void deriveKey_PKCS5_PBKDF2_HMAC_SHA1(const unsigned char* password, int passwordLength, const unsigned char* salt,
                                     int saltLength, long long iterations, int keyLength, unsigned char* output)
{
    const char* where = "pell::deriveKey_PKCS5_PBKDF2_HMAC_SHA1";
    if (iterations < 1 || iterations > INT_MAX)
        throw zu::CInvalidArgError(where, "Invalid iteration count", zu::CProps().set("iterations", iterations));
    if (keyLength < 1 || passwordLength < 0 || saltLength < 0)
        throw zu::CInvalidArgError(where, "Invalid length",
                                   zu::CProps().set("keyLength", keyLength).set("passwordLength", passwordLength).set("saltLength", saltLength));
    if (!output || (!password && passwordLength > 0) || (!salt && saltLength > 0))
        throw zu::CInvalidArgError(where, "Null pointer for a non-empty password, salt or output");
    // libcrypto is not given null pointers even for empty inputs.
    static const unsigned char empty = 0;
    if (PKCS5_PBKDF2_HMAC_SHA1(reinterpret_cast<const char*>(passwordLength ? password : &empty), passwordLength,
                               saltLength ? salt : &empty, saltLength, static_cast<int>(iterations), keyLength,
                               output) != 1)
        throwOpenSSLError("Key derivation failed.");
}

} // namespace pell
