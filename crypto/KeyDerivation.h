// Password-based key derivation.
#pragma once

namespace pell {

// PBKDF2 (PKCS #5 v2.0) with HMAC-SHA1: fills `output` with keyLength bytes
// derived from the password bytes and the salt. iterations must be at least
// 1 and keyLength at least 1, else zu::CInvalidArgError.
void deriveKey_PKCS5_PBKDF2_HMAC_SHA1(const unsigned char* password, int passwordLength, const unsigned char* salt,
                                     int saltLength, long long iterations, int keyLength, unsigned char* output);

} // namespace pell
