// An I/O stream over a byte buffer: reads come from the buffer's used part,
// writes past its end grow it. Used to build and parse images in memory.
#pragma once

#include "base/IIOStream.h"
#include "base/TBuffer.h"

namespace zu {

class CBufferStream : public CBase, public IIOStream {
public:
    // The buffer is shared, not copied; `growth` becomes its growth factor.
    CBufferStream(TBuffer<unsigned char>* buffer, double growth = 2.0, const CURI& uri = CURI());

    TBuffer<unsigned char>* getBuffer() const { return buffer; }

    void read(void* data, int bytes) override;
    int readLax(void* data, int bytes) override;
    int readAvailable(void* data, int bytes) override;
    bool waitReadable(int timeoutMs) const override;
    bool isEndOfStream() const override;
    bool isEndOfStream_NonBlocking() const override;
    void write(const void* data, int bytes, IWriteBarrier* barrier = nullptr) override;
    void writeKeepBuffer(const TConstBufferSlice<unsigned char>& data, IWriteBarrier* barrier = nullptr) override;
    P<IWriteBarrier> createWriteBarrier(IWriteBarrier* chained) override;
    void flush() override;
    void setLength(long long length) override;
    long long getLength() const override;
    long long getPosition() const override;
    CURI getURI() const override;
    void seek(long long position) override;
    // Refused: "Buffer stream does not support range locking."
    void lockRange(long long start, long long length, LockType type) override;
    void close() override;

private:
    void checkOpen() const;

    P<TBuffer<unsigned char>> buffer;
    CURI uri;
    long long position = 0;
    bool closed = false;
};

} // namespace zu
