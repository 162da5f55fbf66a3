// The crypto library against published vectors, and the cipher's padding,
// buffer and failure rules that key wrapping and grain encryption rely on.
#include "crypto/CCipher_AES256CBC.h"
#include "crypto/CDigestType_SHA256.h"
#include "crypto/KeyDerivation.h"
#include "base/Parse.h"

#include "common/TestUtil.h"

#include <functional>
#include <string>
#include <vector>

using namespace kordtest;
using Buffer = zu::TBuffer<unsigned char>;
using Bytes = std::vector<unsigned char>;

namespace {

Bytes bytesOf(const Buffer& b) { return Bytes(b.getData(), b.getData() + b.getUsed()); }
Bytes hex(const char* text) { return bytesOf(zu::hexDecode(text)); }

// NIST SP 800-38A, F.2.5 and F.2.6 (CBC-AES256).
const Bytes nistKey = hex("603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4");
const Bytes nistIV = hex("000102030405060708090a0b0c0d0e0f");
const Bytes nistPlain = hex("6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
                            "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710");
const Bytes nistCipher = hex("f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"
                             "39f23369a9d9bacfa530e26304231461b2eb05e2c39be9fcda6c19078c6a9d1b");
const int noPad = pell::ICipher::flagNoPadding, append = pell::ICipher::flagAppend;

} // namespace

// The NIST vectors through each entry point; a wrapped 32-byte key is 48
// bytes long, as a whole block of PKCS#7 padding (each byte holds the
// padding length) is added to an aligned input.
TEST(CipherAES256CBC, nistVectorsEveryEntryPointPaddingWrongKeyAndBadArguments)
{
    pell::CCipher_AES256CBC cipher;
    const unsigned char *k = nistKey.data(), *iv = nistIV.data(), *in = nistPlain.data();
    Buffer out;
    EXPECT_EQ(64, cipher.decrypt(k, nistCipher.data(), 64, out, noPad, iv));
    EXPECT_EQ(nistPlain, bytesOf(out));
    Bytes data = nistPlain;
    cipher.encryptBlocksInPlace(k, data.data(), 64, iv);
    EXPECT_EQ(nistCipher, data);
    cipher.decryptBlocksInPlace(k, data.data(), 64, iv);
    EXPECT_EQ(nistPlain, data);

    // No padding setting leaks into the next call through the reused
    // context; appending keeps what the buffer held.
    Buffer prefixed(hex("aabbcc").data(), 3);
    EXPECT_EQ(64, cipher.encrypt(k, nistPlain.data(), 64, prefixed, noPad | append, iv));
    Bytes expected = hex("aabbcc");
    expected.insert(expected.end(), nistCipher.begin(), nistCipher.end());
    EXPECT_EQ(expected, bytesOf(prefixed));

    // A wrong key fails the padding check (this one was checked to; a wrong key
    // passes it by chance about once in 256 tries), and the output and the
    // context are left usable.
    Bytes dataKey = kordtest::pattern(32, 3), wrongKey = nistKey;
    wrongKey[0] ^= 1;
    Buffer wrapped, kept(hex("aa").data(), 1), back;
    EXPECT_EQ(48, cipher.encrypt(k, dataKey.data(), 32, wrapped, 0, iv));
    cipher.decrypt(k, wrapped.getData(), 48, back, noPad, iv);
    EXPECT_EQ(Bytes(16, 16), Bytes(back.getData() + 32, back.getData() + 48));
    auto e = expectThrows<zu::CError>([&] { cipher.decrypt(wrongKey.data(), wrapped.getData(), 48, kept, append, iv); });
    EXPECT_EQ("Decryption failed: the padding is not valid (wrong key or corrupt data).", msg(e));
    EXPECT_FALSE(e.getProp("openssl").empty());
    EXPECT_EQ(hex("aa"), bytesOf(kept));
    cipher.decrypt(k, wrapped.getData(), 48, back, 0, iv);
    EXPECT_EQ(dataKey, bytesOf(back));

    // Bad arguments.
    Buffer self(in, 32);
    // One call per refusal: blocks without padding, null key, null IV,
    // negative length, unknown flags, input inside the output.
    for (const std::function<void()>& call : std::vector<std::function<void()>>{
             [&] { cipher.encrypt(k, in, 17, out, noPad, iv); }, [&] { cipher.encrypt(nullptr, in, 16, out, 0, iv); },
             [&] { cipher.decrypt(k, in, 16, out, 0, nullptr); }, [&] { cipher.encrypt(k, in, -16, out, 0, iv); },
             [&] { cipher.encrypt(k, in, 16, out, 4, iv); }, [&] { cipher.encrypt(k, self.getData(), 32, self, 0, iv); }})
        expectThrows<zu::CInvalidArgError>(call);
    for (int length : {0, 20}) {
        auto e = expectThrows<zu::CError>([&] { cipher.decrypt(k, in, length, out, 0, iv); });
        EXPECT_EQ("Decryption failed: the encrypted data is not a whole, non-zero number of cipher blocks.", msg(e));
    }
}

TEST(DigestSHA256, fipsVectorsWholeAndInPiecesMisuseAndPbkdf2HmacSha1Vectors)
{
    const std::string longMessage = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
    const Bytes longDigest = hex("248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
    for (auto c : {std::pair<std::string, Bytes>{"", hex("e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855")},
                   {"abc", hex("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad")}, {longMessage, longDigest}})
        EXPECT_EQ(c.second, bytesOf(pell::CDigestType_SHA256::hash(c.first.empty() ? nullptr : c.first.data(), c.first.size())));

    zu::P<pell::IDigest> digest = pell::CDigestType_SHA256().createDigest();
    for (char c : longMessage) digest->update(&c, 1);
    digest->finish();
    EXPECT_EQ(longDigest, Bytes(digest->getResult(), digest->getResult() + digest->getResultLength()));
    auto e = expectThrows<zu::CError>([&] { digest->update("x", 1); });
    EXPECT_EQ("Internal error: SHA-256 digest update called after finish.", msg(e));

    // RFC 6070.
    struct Case { std::string password, salt; int iterations; const char* expected; };
    const Case cases[] = {
        {"password", "salt", 4096, "4b007901b765489abead49d926f721d065a429c1"},
        {std::string("pass\0word", 9), std::string("sa\0lt", 5), 4096, "56fa6aa75548099dcc37d7f03425e0c3"},
    };
    for (const Case& c : cases) {
        Bytes expected = hex(c.expected);
        zu::TCryptBuffer<unsigned char> key(static_cast<long long>(expected.size()));
        Bytes password(c.password.begin(), c.password.end()), salt(c.salt.begin(), c.salt.end());
        pell::deriveKey_PKCS5_PBKDF2_HMAC_SHA1(password.data(), static_cast<int>(password.size()), salt.data(),
                                               static_cast<int>(salt.size()), c.iterations,
                                               static_cast<int>(expected.size()), key.getData());
        EXPECT_EQ(expected, bytesOf(key)) << c.password << " " << c.iterations;
    }
    unsigned char out[20];
    expectThrows<zu::CInvalidArgError>([&] { pell::deriveKey_PKCS5_PBKDF2_HMAC_SHA1(out, 1, out, 1, 0, 20, out); });
    expectThrows<zu::CInvalidArgError>([&] { pell::deriveKey_PKCS5_PBKDF2_HMAC_SHA1(out, 1, out, 1, 1LL << 31, 20, out); });
}
