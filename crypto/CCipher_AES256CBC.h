// AES-256 in CBC mode over OpenSSL's libcrypto: key 32 bytes, IV 16 bytes,
// block 16 bytes. One OpenSSL context is kept and reused, so encrypting grain
// after grain allocates nothing.
//
// Key material: between calls the context keeps the key schedule of the last
// call without padding (grain data under the disk key, which the owner holds
// anyway). A call with padding wraps or unwraps keys, so it wipes the context
// before returning. An object serves one thread at a time.
#pragma once

#include "crypto/ICipher.h"

struct evp_cipher_ctx_st;
struct evp_cipher_st;

namespace pell {

class CCipher_AES256CBC : public zu::CBase, public ICipher {
public:
    static constexpr int keySize = 32;
    static constexpr int ivSize = 16;
    static constexpr int blockSize = 16;

    CCipher_AES256CBC();
    ~CCipher_AES256CBC() override;
    CCipher_AES256CBC(const CCipher_AES256CBC&) = delete;
    CCipher_AES256CBC& operator=(const CCipher_AES256CBC&) = delete;

    zu::String getID() const override { return zu::String("aes256cbc"); }
    int getKeySize() const override { return keySize; }
    int getIVSize() const override { return ivSize; }
    int getBlockSize() const override { return blockSize; }

    int encrypt(const unsigned char* key, const unsigned char* input, int inputBytes,
                zu::TBuffer<unsigned char>& output, int flags, const unsigned char* iv) override;
    int decrypt(const unsigned char* key, const unsigned char* input, int inputBytes,
                zu::TBuffer<unsigned char>& output, int flags, const unsigned char* iv) override;
    void encryptBlocksInPlace(const unsigned char* key, unsigned char* data, int bytes,
                              const unsigned char* iv) override;
    void decryptBlocksInPlace(const unsigned char* key, unsigned char* data, int bytes,
                              const unsigned char* iv) override;

private:
    int process(bool encrypting, const unsigned char* key, const unsigned char* input, int inputBytes,
                zu::TBuffer<unsigned char>& output, int flags, const unsigned char* iv);
    void processBlocksInPlace(bool encrypting, const unsigned char* key, unsigned char* data, int bytes,
                              const unsigned char* iv);
    // Keys the context for one operation. After the first time only the key,
    // IV and direction change, which allocates nothing.
    void start(const unsigned char* key, const unsigned char* iv, bool encrypting, bool padding);
    // Frees and zeroes the context's key schedule and buffered block; the
    // next start sets the context up again.
    void wipe();

    evp_cipher_st* aes;
    evp_cipher_ctx_st* context;
    bool contextReady = false;
};

} // namespace pell
