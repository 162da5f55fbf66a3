#include "crypto/CCipher_AES256CBC.h"

#include "crypto/OpenSSLError.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <climits>
#include <cstdint>

namespace pell {

namespace {

const char* operationName(bool encrypting)
{
    return encrypting ? "CCipher_AES256CBC::encrypt" : "CCipher_AES256CBC::decrypt";
}

void checkKeyAndIV(const char* where, const unsigned char* key, const unsigned char* iv)
{
    if (!key) throw zu::CInvalidArgError(where, "The key is null");
    if (!iv) throw zu::CInvalidArgError(where, "The IV is null");
}

void checkData(const char* where, const unsigned char* data, int bytes)
{
    if (bytes < 0) throw zu::CInvalidArgError(where, "Negative data length", zu::CProps().set("bytes", bytes));
    if (!data && bytes > 0) throw zu::CInvalidArgError(where, "The data pointer is null", zu::CProps().set("bytes", bytes));
}

void checkWholeBlocks(const char* where, int bytes)
{
    if (bytes % CCipher_AES256CBC::blockSize != 0)
        throw zu::CInvalidArgError(where, "Without padding the data must be a whole number of cipher blocks",
                                   zu::CProps().set("bytes", bytes).set("blockSize", CCipher_AES256CBC::blockSize));
}

// Writing through `output` must not move or overwrite the input.
bool overlaps(const unsigned char* input, int inputBytes, const zu::TBuffer<unsigned char>& output)
{
    auto inStart = reinterpret_cast<std::uintptr_t>(input);
    auto outStart = reinterpret_cast<std::uintptr_t>(output.getData());
    return inputBytes > 0 && output.getAllocated() > 0 && inStart < outStart + static_cast<std::uintptr_t>(output.getAllocated())
           && outStart < inStart + static_cast<std::uintptr_t>(inputBytes);
}

} // namespace

CCipher_AES256CBC::CCipher_AES256CBC()
    : aes(EVP_CIPHER_fetch(nullptr, "AES-256-CBC", nullptr)), context(EVP_CIPHER_CTX_new())
{
    if (!aes || !context) {
        EVP_CIPHER_CTX_free(context);
        EVP_CIPHER_free(aes);
        throwOpenSSLError("Could not set up the AES-256-CBC cipher of libcrypto.");
    }
}

CCipher_AES256CBC::~CCipher_AES256CBC()
{
    // Both free functions zero what they release and cannot fail.
    EVP_CIPHER_CTX_free(context);
    EVP_CIPHER_free(aes);
}

int CCipher_AES256CBC::encrypt(const unsigned char* key, const unsigned char* input, int inputBytes,
                               zu::TBuffer<unsigned char>& output, int flags, const unsigned char* iv)
{
    return process(true, key, input, inputBytes, output, flags, iv);
}

int CCipher_AES256CBC::decrypt(const unsigned char* key, const unsigned char* input, int inputBytes,
                               zu::TBuffer<unsigned char>& output, int flags, const unsigned char* iv)
{
    return process(false, key, input, inputBytes, output, flags, iv);
}

void CCipher_AES256CBC::encryptBlocksInPlace(const unsigned char* key, unsigned char* data, int bytes,
                                             const unsigned char* iv)
{
    processBlocksInPlace(true, key, data, bytes, iv);
}

void CCipher_AES256CBC::decryptBlocksInPlace(const unsigned char* key, unsigned char* data, int bytes,
                                             const unsigned char* iv)
{
    processBlocksInPlace(false, key, data, bytes, iv);
}

// With padding, encryption adds up to one block and OpenSSL's decryption
// wants one block of room beyond the input, so `blockSize` bytes are reserved
// on top of the input either way. On failure the bytes already written into
// the output's free space are zeroed (they may be plaintext of a wrong key)
// and the output keeps no produced bytes.
int CCipher_AES256CBC::process(bool encrypting, const unsigned char* key, const unsigned char* input, int inputBytes,
                               zu::TBuffer<unsigned char>& output, int flags, const unsigned char* iv)
{
    const char* where = operationName(encrypting);
    checkKeyAndIV(where, key, iv);
    checkData(where, input, inputBytes);
    if ((flags & ~(flagNoPadding | flagAppend)) != 0)
        throw zu::CInvalidArgError(where, "Unknown flags", zu::CProps().set("flags", flags));
    bool padding = (flags & flagNoPadding) == 0;
    if (!padding)
        checkWholeBlocks(where, inputBytes);
    else if (!encrypting && (inputBytes == 0 || inputBytes % blockSize != 0))
        throw zu::CError("Decryption failed: the encrypted data is not a whole, non-zero number of cipher blocks.",
                         zu::String(errorDomain), -1, zu::CProps().set("inputBytes", inputBytes).set("blockSize", blockSize));
    if (inputBytes > INT_MAX - blockSize)
        throw zu::CInvalidArgError(where, "The input is too large", zu::CProps().set("inputBytes", inputBytes));
    if (overlaps(input, inputBytes, output))
        throw zu::CInvalidArgError(where, "The input lies inside the output buffer");

    if ((flags & flagAppend) == 0) output.clear();
    int room = padding ? inputBytes + blockSize : inputBytes;
    output.ensureFree(room);
    unsigned char* out = output.getFreePtr();
    int updated = 0;
    int finished = 0;
    try {
        start(key, iv, encrypting, padding);
        if (inputBytes > 0 && EVP_CipherUpdate(context, out, &updated, input, inputBytes) != 1)
            throwOpenSSLError(encrypting ? "AES-256-CBC encryption failed." : "AES-256-CBC decryption failed.");
        if (EVP_CipherFinal_ex(context, out + updated, &finished) != 1) {
            if (!encrypting && padding)
                throwOpenSSLError("Decryption failed: the padding is not valid (wrong key or corrupt data).");
            throwOpenSSLError(encrypting ? "AES-256-CBC encryption failed." : "AES-256-CBC decryption failed.");
        }
    } catch (...) {
        OPENSSL_cleanse(out, static_cast<std::size_t>(room));
        if (padding) wipe();
        throw;
    }
    if (padding) wipe();
    output.addUsed(updated + finished);
    return updated + finished;
}

void CCipher_AES256CBC::processBlocksInPlace(bool encrypting, const unsigned char* key, unsigned char* data, int bytes,
                                             const unsigned char* iv)
{
    const char* where = encrypting ? "CCipher_AES256CBC::encryptBlocksInPlace" : "CCipher_AES256CBC::decryptBlocksInPlace";
    checkKeyAndIV(where, key, iv);
    checkData(where, data, bytes);
    checkWholeBlocks(where, bytes);
    if (bytes == 0) return;
    start(key, iv, encrypting, false);
    int produced = 0;
    if (EVP_CipherUpdate(context, data, &produced, data, bytes) != 1)
        throwOpenSSLError(encrypting ? "AES-256-CBC encryption failed." : "AES-256-CBC decryption failed.");
    if (produced != bytes)
        throw zu::CError("Internal error: AES-256-CBC in place produced a different number of bytes than it was given.",
                         zu::String(errorDomain), -1, zu::CProps().set("bytes", bytes).set("produced", produced));
}

void CCipher_AES256CBC::start(const unsigned char* key, const unsigned char* iv, bool encrypting, bool padding)
{
    if (EVP_CipherInit_ex(context, contextReady ? nullptr : aes, nullptr, key, iv, encrypting ? 1 : 0) != 1)
        throwOpenSSLError("Could not initialise the AES-256-CBC cipher of libcrypto.");
    contextReady = true;
    if (EVP_CIPHER_CTX_set_padding(context, padding ? 1 : 0) != 1)
        throwOpenSSLError("Could not set the padding mode of the AES-256-CBC cipher.");
}

void CCipher_AES256CBC::wipe()
{
    EVP_CIPHER_CTX_reset(context);
    contextReady = false;
}

} // namespace pell
