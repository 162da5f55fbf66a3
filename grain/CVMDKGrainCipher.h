// The encryption of one disk's stored grains: AES-256-CBC under the disk
// key, each grain under its own IV (makeGrainIV), without padding.
//
// An uncompressed grain is stored encrypted whole. A compressed grain keeps
// its grain header in the clear, so that markers and grains stay apart:
//   off  size  field
//     0    12  grain LBA and compressed size (layout in CVMDKDataPreparer.h)
//    12     P  the rest of the prepared grain, zero-padded to the cipher
//              block and encrypted
// A prepared grain is a whole number of sectors, so P is its size rounded up
// to the block: a stored compressed grain is its prepared size plus 12.
//
// Each grain object holds one for its extent. Threads that encrypt or
// decrypt grains beside the disk's own thread each get their own from the
// disk (CVMDKDisk::createGrainCipher), since a cipher object keeps working
// state; the key stays in crypt buffers.
#pragma once

#include "base/TBuffer.h"
#include "crypto/ICipher.h"

namespace kord {

class CVMDKGrainCipher : public zu::CBase {
public:
    static constexpr int clearHeaderBytes = 12;

    CVMDKGrainCipher(pell::ICipher* cipher, const zu::TCryptBuffer<unsigned char>& key,
                     const zu::TBuffer<unsigned char>& diskIV, long long grainSizeBytes, bool compressed);

    // The disk IV with the grain index's eight little-endian bytes XORed
    // in, repeated every eight bytes.
    static void makeGrainIV(zu::TBuffer<unsigned char>& iv, const zu::TBuffer<unsigned char>& diskIV,
                            long long grainIndex);

    long long getBlockSize() const { return blockSize; }
    // The stored size of prepared data of `preparedBytes`.
    long long getStoredSize(long long preparedBytes) const;
    // The stored form of a prepared grain into out (an uncompressed grain
    // shorter than a grain is padded with zeros to one).
    void encrypt(const unsigned char* prepared, long long bytes, long long diskGrainIndex,
                 zu::TBuffer<unsigned char>& out);
    // Decrypts whole blocks in place: those that begin a grain's encrypted
    // bytes (previousBlock null), or those that follow the ciphertext block
    // previousBlock.
    void decryptBlocks(unsigned char* data, long long bytes, long long diskGrainIndex,
                       const unsigned char* previousBlock);
    // A stored grain as read from the file, in place into its prepared
    // form. A compressed grain's header must have been checked against
    // the bytes read (CVMDKGrain::checkStoredCompressedGrain).
    void decrypt(zu::TBuffer<unsigned char>& stored, long long diskGrainIndex);

private:
    zu::P<pell::ICipher> cipher;
    zu::TCryptBuffer<unsigned char> key;
    zu::TBuffer<unsigned char> diskIV;
    zu::TBuffer<unsigned char> grainIV;
    long long grainSizeBytes;
    bool compressed;
    long long blockSize;
};

} // namespace kord
