#include "crypto/CDigestType_SHA256.h"

#include "crypto/OpenSSLError.h"

#include <openssl/evp.h>

namespace pell {

namespace {

// One SHA-256 computation. Only getResult is allowed after finish: a late
// update would silently be lost from a result that is already fixed.
class CSHA256Digest : public zu::CBase, public IDigest {
public:
    static constexpr int resultLength = 32;

    CSHA256Digest() : context(EVP_MD_CTX_new())
    {
        if (!context || EVP_DigestInit_ex(context, EVP_sha256(), nullptr) != 1) {
            EVP_MD_CTX_free(context);
            throwOpenSSLError("Could not set up the SHA-256 digest of libcrypto.");
        }
    }
    ~CSHA256Digest() override { EVP_MD_CTX_free(context); }
    CSHA256Digest(const CSHA256Digest&) = delete;
    CSHA256Digest& operator=(const CSHA256Digest&) = delete;

    void update(const void* data, long long bytes) override
    {
        checkNotFinished("update");
        if (bytes < 0 || (!data && bytes > 0))
            throw zu::CInvalidArgError("CSHA256Digest::update", "Invalid data or length", zu::CProps().set("bytes", bytes));
        if (bytes > 0 && EVP_DigestUpdate(context, data, static_cast<std::size_t>(bytes)) != 1)
            throwOpenSSLError("SHA-256 digest computation failed.");
    }

    void finish() override
    {
        checkNotFinished("finish");
        unsigned int length = 0;
        if (EVP_DigestFinal_ex(context, result, &length) != 1 || length != resultLength)
            throwOpenSSLError("SHA-256 digest computation failed.");
        finished = true;
    }

    int getResultLength() const override { return resultLength; }

    const unsigned char* getResult() const override
    {
        if (!finished)
            throw zu::CError("Internal error: the SHA-256 digest result was requested before finish.",
                             zu::String(errorDomain), -1);
        return result;
    }

private:
    void checkNotFinished(const char* operation) const
    {
        if (finished)
            throw zu::CError("Internal error: SHA-256 digest " + zu::String(operation) + " called after finish.",
                             zu::String(errorDomain), -1);
    }

    EVP_MD_CTX* context;
    unsigned char result[resultLength] = {};
    bool finished = false;
};

} // namespace

zu::P<IDigest> CDigestType_SHA256::createDigest() const
{
    return zu::newObj<CSHA256Digest>();
}

zu::TBuffer<unsigned char> CDigestType_SHA256::hash(const void* data, long long bytes)
{
    CSHA256Digest digest;
    digest.update(data, bytes);
    digest.finish();
    return zu::TBuffer<unsigned char>(digest.getResult(), digest.getResultLength());
}

} // namespace pell
