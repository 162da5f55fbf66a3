// Symmetric block ciphers, as the disk encryption uses them.
#pragma once

#include "base/CBase.h"
#include "base/String.h"
#include "base/TBuffer.h"

namespace pell {

class ICipher : public virtual zu::IBase {
public:
    // Flag bits for encrypt and decrypt.
    enum Flags {
        // Without padding: the input must be a multiple of the block size and
        // the output has the input's length. With padding (the default,
        // flag 0): PKCS#7, the output of encrypt is the input rounded up to
        // the next whole block (a full block is added to an aligned input),
        // and decrypt checks and strips the padding.
        flagNoPadding = 1,
        // Append the result to the output buffer's contents instead of
        // replacing them.
        flagAppend = 2,
    };

    // "aes256cbc" for AES-256 in CBC mode.
    virtual zu::String getID() const = 0;
    virtual int getKeySize() const = 0;
    virtual int getIVSize() const = 0;
    virtual int getBlockSize() const = 0;

    // Returns the number of bytes produced. A key or IV of the wrong length,
    // an unaligned input without padding, and (on decrypt) wrong padding
    // throw zu::CError: wrong padding is an error, never garbage output.
    virtual int encrypt(const unsigned char* key, const unsigned char* input, int inputBytes,
                        zu::TBuffer<unsigned char>& output, int flags, const unsigned char* iv) = 0;
    virtual int decrypt(const unsigned char* key, const unsigned char* input, int inputBytes,
                        zu::TBuffer<unsigned char>& output, int flags, const unsigned char* iv) = 0;
    // In-place variants without padding for whole blocks (bytes a multiple of
    // the block size), for grain data that must not be copied again.
    virtual void encryptBlocksInPlace(const unsigned char* key, unsigned char* data, int bytes,
                                      const unsigned char* iv) = 0;
    virtual void decryptBlocksInPlace(const unsigned char* key, unsigned char* data, int bytes,
                                      const unsigned char* iv) = 0;
};

} // namespace pell
