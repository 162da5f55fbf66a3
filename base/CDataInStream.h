// Reads fixed-width little-endian integers from a stream; every other
// operation is forwarded to the wrapped stream. No buffering of its own: put
// it over a buffering stream when reading many small fields.
#pragma once

#include "base/IIOStream.h"

#include <cstdint>

namespace zu {

class CDataInStream : public CBase, public IInStream {
public:
    explicit CDataInStream(IInStream* stream);

    std::uint8_t readUInt8();
    std::uint16_t readUInt16();
    std::uint32_t readUInt32();
    std::uint64_t readUInt64();
    std::int16_t readInt16() { return static_cast<std::int16_t>(readUInt16()); }
    std::int32_t readInt32() { return static_cast<std::int32_t>(readUInt32()); }
    std::int64_t readInt64() { return static_cast<std::int64_t>(readUInt64()); }

    IInStream* getStream() const { return stream; }

    void read(void* data, int bytes) override;
    int readLax(void* data, int bytes) override;
    int readAvailable(void* data, int bytes) override;
    bool waitReadable(int timeoutMs) const override;
    bool isEndOfStream() const override;
    bool isEndOfStream_NonBlocking() const override;
    long long getLength() const override;
    long long getPosition() const override;
    CURI getURI() const override;
    void seek(long long position) override;
    void lockRange(long long start, long long length, LockType type) override;
    void close() override;

private:
    P<IInStream> stream;
};

} // namespace zu
