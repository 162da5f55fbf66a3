// Writes fixed-width little-endian integers to a stream; every other
// operation is forwarded to the wrapped stream. No buffering of its own.
#pragma once

#include "base/IIOStream.h"

#include <cstdint>

namespace zu {

class CDataOutStream : public CBase, public IOutStream {
public:
    explicit CDataOutStream(IOutStream* stream);

    void writeUInt8(std::uint8_t value);
    void writeUInt16(std::uint16_t value);
    void writeUInt32(std::uint32_t value);
    void writeUInt64(std::uint64_t value);
    void writeInt16(std::int16_t value) { writeUInt16(static_cast<std::uint16_t>(value)); }
    void writeInt32(std::int32_t value) { writeUInt32(static_cast<std::uint32_t>(value)); }
    void writeInt64(std::int64_t value) { writeUInt64(static_cast<std::uint64_t>(value)); }

    IOutStream* getStream() const { return stream; }

    void write(const void* data, int bytes, IWriteBarrier* barrier = nullptr) override;
    void writeKeepBuffer(const TConstBufferSlice<unsigned char>& data, IWriteBarrier* barrier = nullptr) override;
    P<IWriteBarrier> createWriteBarrier(IWriteBarrier* chained) override;
    void flush() override;
    void setLength(long long length) override;
    long long getLength() const override;
    long long getPosition() const override;
    CURI getURI() const override;
    void seek(long long position) override;
    void lockRange(long long start, long long length, LockType type) override;
    void close() override;

private:
    P<IOutStream> stream;
};

} // namespace zu
