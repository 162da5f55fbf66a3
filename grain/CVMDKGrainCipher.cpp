#include "grain/CVMDKGrainCipher.h"

#include "base/CError.h"
#include "base/Endian.h"
#include "format/VMDKMarker.h"

#include <algorithm>
#include <cstring>

namespace kord {

namespace {

long long roundUp(long long value, long long unit) { return (value + unit - 1) / unit * unit; }

} // namespace

CVMDKGrainCipher::CVMDKGrainCipher(pell::ICipher* cipher, const zu::TCryptBuffer<unsigned char>& key,
                                   const zu::TBuffer<unsigned char>& diskIV, long long grainSizeBytes, bool compressed)
    : cipher(cipher), key(key), diskIV(diskIV), grainSizeBytes(grainSizeBytes), compressed(compressed),
      blockSize(cipher->getBlockSize())
{
}

void CVMDKGrainCipher::makeGrainIV(zu::TBuffer<unsigned char>& iv, const zu::TBuffer<unsigned char>& diskIV,
                                   long long grainIndex)
{
    iv.assign(diskIV.getData(), diskIV.getUsed());
    for (long long i = 0; i < iv.getUsed(); ++i)
        iv[i] = static_cast<unsigned char>(iv[i] ^ ((grainIndex >> (8 * (i % 8))) & 0xFF));
}

long long CVMDKGrainCipher::getStoredSize(long long preparedBytes) const
{
    if (!compressed) return grainSizeBytes;
    return clearHeaderBytes + roundUp(preparedBytes - clearHeaderBytes, blockSize);
}

void CVMDKGrainCipher::encrypt(const unsigned char* prepared, long long bytes, long long diskGrainIndex,
                               zu::TBuffer<unsigned char>& out)
{
    long long stored = getStoredSize(bytes);
    long long header = compressed ? clearHeaderBytes : 0;
    out.setUsed(stored);
    std::memcpy(out.getData(), prepared, static_cast<size_t>(std::min(bytes, stored)));
    if (bytes < stored) std::memset(out.getData() + bytes, 0, static_cast<size_t>(stored - bytes));
    makeGrainIV(grainIV, diskIV, diskGrainIndex);
    cipher->encryptBlocksInPlace(key.getData(), out.getData() + header, static_cast<int>(stored - header),
                                 grainIV.getData());
}

void CVMDKGrainCipher::decryptBlocks(unsigned char* data, long long bytes, long long diskGrainIndex,
                                     const unsigned char* previousBlock)
{
    if (!previousBlock) {
        makeGrainIV(grainIV, diskIV, diskGrainIndex);
        previousBlock = grainIV.getData();
    }
    cipher->decryptBlocksInPlace(key.getData(), data, static_cast<int>(bytes), previousBlock);
}

void CVMDKGrainCipher::decrypt(zu::TBuffer<unsigned char>& stored, long long diskGrainIndex)
{
    if (!compressed) {
        if (stored.getUsed() != grainSizeBytes)
            throw zu::CError("Internal error: a stored uncompressed grain to decrypt is not one grain.", zu::String(), -1,
                             zu::CProps().set("storedSize", stored.getUsed()).set("grainSize", grainSizeBytes));
        decryptBlocks(stored.getData(), grainSizeBytes, diskGrainIndex, nullptr);
        return;
    }
    long long size = static_cast<std::int32_t>(zu::loadLE32(stored.getData() + 8));
    long long preparedBytes = roundUp(clearHeaderBytes + size, vmdkSectorSize);
    if (stored.getUsed() != getStoredSize(preparedBytes))
        throw zu::CError("Internal error: a stored compressed grain to decrypt does not match its size field.",
                         zu::String(), -1, zu::CProps().set("storedSize", stored.getUsed()).set("compressedSize", size));
    decryptBlocks(stored.getData() + clearHeaderBytes, stored.getUsed() - clearHeaderBytes, diskGrainIndex, nullptr);
    stored.setUsed(preparedBytes);
}

} // namespace kord
