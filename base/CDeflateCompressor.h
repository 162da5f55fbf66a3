// Deflate engines producing zlib-format streams (RFC 1950: a two-byte
// header, deflate data and an Adler-32 checksum), the form in which VMDK
// readers expect compressed grains.
#pragma once

#include "base/ISimpleCompressor.h"

struct libdeflate_compressor;
struct libdeflate_decompressor;
struct z_stream_s;

namespace zu {

// libdeflate: fast whole-buffer compression. Levels 1..12 (libdeflate's own
// scale; 1 fastest); level 0 stores without compression.
class CLibdeflateCompressor : public CBase, public ISimpleCompressor {
public:
    explicit CLibdeflateCompressor(int level);
    ~CLibdeflateCompressor() override;
    CLibdeflateCompressor(const CLibdeflateCompressor&) = delete;
    CLibdeflateCompressor& operator=(const CLibdeflateCompressor&) = delete;

    int getCompressedSizeUpperBound(int sourceBytes) const override;
    int compressSingleStep(const void* source, int sourceBytes, void* target, int targetCapacity) override;
    int decompressSingleStep(const void* source, int sourceBytes, void* target, int targetCapacity) override;
    String getInternalDesc() const override;

private:
    int level;
    libdeflate_compressor* compressor = nullptr;
    libdeflate_decompressor* decompressor = nullptr;
};

// zlib: levels 0..9 with zlib's meaning; at level 0 the stream holds stored
// blocks only, so its size is known in advance for every input.
class CZlibCompressor : public CBase, public ISimpleCompressor {
public:
    explicit CZlibCompressor(int level);
    ~CZlibCompressor() override;
    CZlibCompressor(const CZlibCompressor&) = delete;
    CZlibCompressor& operator=(const CZlibCompressor&) = delete;

    int getCompressedSizeUpperBound(int sourceBytes) const override;
    int compressSingleStep(const void* source, int sourceBytes, void* target, int targetCapacity) override;
    int decompressSingleStep(const void* source, int sourceBytes, void* target, int targetCapacity) override;
    String getInternalDesc() const override;

private:
    int level;
    // zlib's stream states, made on first use and reset for every block, so
    // that compressing grain after grain does not allocate.
    z_stream_s* deflater = nullptr;
    z_stream_s* inflater = nullptr;
};

} // namespace zu
