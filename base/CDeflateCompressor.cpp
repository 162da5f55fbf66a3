#include "base/CDeflateCompressor.h"

#include "base/CIOError.h"

#include <climits>
#include <libdeflate.h>
#include <new>
#include <zlib.h>

namespace zu {

namespace {

void checkLevel(const char* where, int level, int maxLevel)
{
    if (level < 0 || level > maxLevel)
        throw CInvalidArgError(where, "Compression level must lie in 0.." + toString(maxLevel),
                               CProps().set("level", level));
}

void checkBlock(const char* where, const void* source, int sourceBytes, const void* target, int targetCapacity)
{
    if (sourceBytes < 0 || targetCapacity < 0 || (sourceBytes > 0 && !source) || (targetCapacity > 0 && !target))
        throw CInvalidArgError(where, "Invalid buffer or size",
                               CProps().set("sourceBytes", sourceBytes).set("targetCapacity", targetCapacity));
}

std::size_t sourceSize(const char* where, int sourceBytes)
{
    if (sourceBytes < 0) throw CInvalidArgError(where, "Invalid source size", CProps().set("sourceBytes", sourceBytes));
    return static_cast<std::size_t>(sourceBytes);
}

// Near INT_MAX the bound itself no longer fits the interface's int.
int boundAsInt(const char* where, int sourceBytes, unsigned long long bound)
{
    if (bound > static_cast<unsigned long long>(INT_MAX))
        throw CInvalidArgError(where, "Source too large for one compressed block",
                               CProps().set("sourceBytes", sourceBytes));
    return static_cast<int>(bound);
}

[[noreturn]] void throwBadData(const String& engineError, int sourceBytes, int targetCapacity)
{
    throw CIOError(CIOError::codeInvalidData, "Deflate data could not be decompressed.",
                   CProps()
                       .set("engineError", engineError)
                       .set("compressedBytes", sourceBytes)
                       .set("targetCapacity", targetCapacity));
}

const char* libdeflateResultName(libdeflate_result result)
{
    switch (result) {
    case LIBDEFLATE_SUCCESS: return "LIBDEFLATE_SUCCESS";
    case LIBDEFLATE_BAD_DATA: return "LIBDEFLATE_BAD_DATA";
    case LIBDEFLATE_SHORT_OUTPUT: return "LIBDEFLATE_SHORT_OUTPUT";
    case LIBDEFLATE_INSUFFICIENT_SPACE: return "LIBDEFLATE_INSUFFICIENT_SPACE";
    }
    return "LIBDEFLATE_UNKNOWN_RESULT";
}

// zlib refuses a null output pointer even when there is no room to write.
Bytef* outputPointer(void* target)
{
    static Bytef none;
    return target ? static_cast<Bytef*>(target) : &none;
}

} // namespace

// ---- libdeflate ----

CLibdeflateCompressor::CLibdeflateCompressor(int level) : level(level)
{
    checkLevel("CLibdeflateCompressor constructor", level, 12);
    compressor = libdeflate_alloc_compressor(level);
    decompressor = libdeflate_alloc_decompressor();
    if (!compressor || !decompressor) {
        libdeflate_free_compressor(compressor);
        libdeflate_free_decompressor(decompressor);
        throw std::bad_alloc();
    }
}

CLibdeflateCompressor::~CLibdeflateCompressor()
{
    libdeflate_free_compressor(compressor);
    libdeflate_free_decompressor(decompressor);
}

int CLibdeflateCompressor::getCompressedSizeUpperBound(int sourceBytes) const
{
    static const char* const where = "CLibdeflateCompressor::getCompressedSizeUpperBound";
    return boundAsInt(where, sourceBytes, libdeflate_zlib_compress_bound(compressor, sourceSize(where, sourceBytes)));
}

int CLibdeflateCompressor::compressSingleStep(const void* source, int sourceBytes, void* target, int targetCapacity)
{
    checkBlock("CLibdeflateCompressor::compressSingleStep", source, sourceBytes, target, targetCapacity);
    std::size_t written = libdeflate_zlib_compress(compressor, source, static_cast<std::size_t>(sourceBytes), target,
                                                   static_cast<std::size_t>(targetCapacity));
    // libdeflate signals "does not fit" with 0; a zlib stream is never empty.
    return written == 0 ? -1 : static_cast<int>(written);
}

int CLibdeflateCompressor::decompressSingleStep(const void* source, int sourceBytes, void* target, int targetCapacity)
{
    checkBlock("CLibdeflateCompressor::decompressSingleStep", source, sourceBytes, target, targetCapacity);
    std::size_t consumed = 0;
    std::size_t produced = 0;
    // The _ex form with both counts wanted accepts bytes after the stream
    // (grain padding) and output shorter than the capacity.
    libdeflate_result result =
        libdeflate_zlib_decompress_ex(decompressor, source, static_cast<std::size_t>(sourceBytes), target,
                                      static_cast<std::size_t>(targetCapacity), &consumed, &produced);
    if (result != LIBDEFLATE_SUCCESS) throwBadData(libdeflateResultName(result), sourceBytes, targetCapacity);
    return static_cast<int>(produced);
}

String CLibdeflateCompressor::getInternalDesc() const { return "libdeflate-zlib-" + toString(level); }

// ---- zlib ----

CZlibCompressor::CZlibCompressor(int level) : level(level) { checkLevel("CZlibCompressor constructor", level, 9); }

CZlibCompressor::~CZlibCompressor()
{
    if (deflater) {
        deflateEnd(deflater);
        delete deflater;
    }
    if (inflater) {
        inflateEnd(inflater);
        delete inflater;
    }
}

int CZlibCompressor::getCompressedSizeUpperBound(int sourceBytes) const
{
    static const char* const where = "CZlibCompressor::getCompressedSizeUpperBound";
    return boundAsInt(where, sourceBytes, compressBound(static_cast<uLong>(sourceSize(where, sourceBytes))));
}

int CZlibCompressor::compressSingleStep(const void* source, int sourceBytes, void* target, int targetCapacity)
{
    checkBlock("CZlibCompressor::compressSingleStep", source, sourceBytes, target, targetCapacity);
    if (!deflater) {
        auto* stream = new z_stream();
        if (deflateInit(stream, level) != Z_OK) {
            delete stream;
            throw std::bad_alloc();
        }
        deflater = stream;
    } else if (deflateReset(deflater) != Z_OK) {
        throw CError("Internal error: zlib could not reset its compressor.");
    }
    deflater->next_in = static_cast<Bytef*>(const_cast<void*>(source));
    deflater->avail_in = static_cast<uInt>(sourceBytes);
    deflater->next_out = outputPointer(target);
    deflater->avail_out = static_cast<uInt>(targetCapacity);
    int rc = deflate(deflater, Z_FINISH);
    if (rc == Z_STREAM_END) return static_cast<int>(deflater->total_out);
    // Z_OK or Z_BUF_ERROR: the output space ran out before the stream ended.
    if (rc == Z_OK || rc == Z_BUF_ERROR) return -1;
    throw CError("Internal error: zlib failed to compress.", String(), -1, CProps().set("engineError", rc));
}

int CZlibCompressor::decompressSingleStep(const void* source, int sourceBytes, void* target, int targetCapacity)
{
    checkBlock("CZlibCompressor::decompressSingleStep", source, sourceBytes, target, targetCapacity);
    if (!inflater) {
        auto* stream = new z_stream();
        if (inflateInit(stream) != Z_OK) {
            delete stream;
            throw std::bad_alloc();
        }
        inflater = stream;
    } else if (inflateReset(inflater) != Z_OK) {
        throw CError("Internal error: zlib could not reset its decompressor.");
    }
    inflater->next_in = static_cast<Bytef*>(const_cast<void*>(source));
    inflater->avail_in = static_cast<uInt>(sourceBytes);
    inflater->next_out = outputPointer(target);
    inflater->avail_out = static_cast<uInt>(targetCapacity);
    // One call does it all; zlib stops at the end of the stream and leaves
    // any bytes after it (grain padding) unread.
    int rc = inflate(inflater, Z_FINISH);
    if (rc == Z_STREAM_END) return static_cast<int>(inflater->total_out);
    if (rc == Z_MEM_ERROR) throw std::bad_alloc();
    if (rc == Z_BUF_ERROR || rc == Z_OK) {
        throwBadData(inflater->avail_out == 0 ? "Z_BUF_ERROR: output exceeds the capacity"
                                              : "Z_BUF_ERROR: the stream ends early",
                     sourceBytes, targetCapacity);
    }
    if (rc == Z_NEED_DICT) throwBadData("Z_NEED_DICT: the stream needs a preset dictionary", sourceBytes, targetCapacity);
    throwBadData(inflater->msg ? String(inflater->msg) : "zlib error " + toString(rc), sourceBytes, targetCapacity);
}

String CZlibCompressor::getInternalDesc() const { return "zlib-" + toString(level); }

} // namespace zu
