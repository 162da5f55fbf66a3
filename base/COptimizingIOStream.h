// The buffering layer through which every extent file is read and written.
//
// Small transfers (headers, markers, grain tables, compressed grains) are
// served from a read-ahead block and coalesced into a write-behind run, so
// that the many small metadata accesses of a sparse extent cost few system
// calls. Large transfers (threshold and up: whole grains) bypass both and go
// straight between the caller's buffer and the inner stream, so grain data is
// never copied twice. A read always sees earlier writes.
#pragma once

#include "base/IIOStream.h"
#include "base/TBuffer.h"

namespace zu {

class COptimizingIOStream : public CBase,
                            public IIOStream,
                            public IAlignedStreamBase,
                            public IDurableStream,
                            public IUnbufferedReadStream {
public:
    static constexpr int defaultBlockBytes = 64 * 1024;
    static constexpr int defaultWriteBehindBytes = 1024 * 1024;
    static constexpr int defaultDirectThreshold = 64 * 1024;

    // Takes a reference to the inner stream. Positions and alignments are
    // those of the inner stream (1 when it does not implement
    // IAlignedStreamBase).
    explicit COptimizingIOStream(IIOStream* inner, int blockBytes = defaultBlockBytes,
                                 int writeBehindBytes = defaultWriteBehindBytes,
                                 int directThreshold = defaultDirectThreshold);
    ~COptimizingIOStream() override;

    IIOStream* getInner() const { return inner; }

    void read(void* data, int bytes) override;
    int readLax(void* data, int bytes) override;
    int readAvailable(void* data, int bytes) override;
    // Straight from the inner stream, whatever the size; throws like read.
    void readUnbuffered(void* data, int bytes) override;
    bool waitReadable(int timeoutMs) const override;
    bool isEndOfStream() const override;
    bool isEndOfStream_NonBlocking() const override;
    void write(const void* data, int bytes, IWriteBarrier* barrier = nullptr) override;
    // Large slices are written at once without a copy; small ones are
    // coalesced like write().
    void writeKeepBuffer(const TConstBufferSlice<unsigned char>& data, IWriteBarrier* barrier = nullptr) override;
    P<IWriteBarrier> createWriteBarrier(IWriteBarrier* chained) override;
    // Writes the write-behind run to the inner stream and flushes it.
    void flush() override;
    void setLength(long long length) override;
    long long getLength() const override;
    long long getPosition() const override;
    CURI getURI() const override;
    void seek(long long position) override;
    void lockRange(long long start, long long length, LockType type) override;
    // Flushes and closes the inner stream; afterwards every operation but
    // close and getURI throws CIOError codeClosed.
    void close() override;

    int getPositionAlign() const override { return positionAlign; }
    int getBufferAlign() const override { return bufferAlign; }
    int getBestPerformancePositionAlign() const override { return bestPositionAlign; }
    // flush(), then the inner stream's sync() when it has one.
    void sync() override;
    // flush(), then the inner stream's startSync() when it has one.
    void startSync() override;

    // Counters for tests and benchmarks: transfers that reached the inner stream.
    struct Stats {
        long long innerReads = 0;
        long long innerWrites = 0;
        long long directReads = 0;
        long long directWrites = 0;
    };
    const Stats& getStats() const { return stats; }

private:
    void checkOpen() const;
    long long writeBehindEnd() const { return writeBehindStart + writeBehind.getUsed(); }
    // Whether a read of [start, start + bytes) must see the write-behind run
    // in the inner stream first: the run overlaps it, or the read goes past
    // the inner end while the run lies beyond `start` (the gap reads as zeros
    // only once the run is written).
    bool writeBehindAffectsRead(long long start, long long bytes) const;
    void flushWriteBehind();
    void writeAt(const void* data, long long bytes);
    void writeDirect(const void* data, long long bytes);
    void writeBehindAppend(const void* data, long long bytes);
    void writeInner(long long position, const void* data, long long bytes);
    long long readInner(long long position, void* data, long long bytes);
    int readDirect(void* data, int bytes);
    int readBuffered(void* data, int bytes);
    bool fillReadBlock();
    void invalidateReadBlock(long long start, long long bytes);
    void patchReadBlock(long long start, const void* data, long long bytes);
    [[noreturn]] void throwEndOfData(int bytes) const;

    P<IIOStream> inner;
    CURI uri;
    int blockBytes;
    int writeBehindBytes;
    int directThreshold;
    int positionAlign = 1;
    int bufferAlign = 1;
    int bestPositionAlign = 1;
    long long position = 0;
    // The inner stream's length as this layer has made it; the layer assumes
    // it is the only writer of the inner stream.
    long long innerLength = 0;
    // Read-ahead: bytes [readBlockStart, readBlockStart + used) of the
    // stream, kept current by patching on small writes; -1 when empty.
    TBuffer<unsigned char> readBlock;
    long long readBlockStart = -1;
    // Write-behind: one contiguous run of small writes not yet in the inner
    // stream; -1 when empty.
    TBuffer<unsigned char> writeBehind;
    long long writeBehindStart = -1;
    bool closed = false;
    Stats stats;
};

// A read-only buffering layer over an input stream: read-ahead in blocks,
// large reads straight through.
class COptimizingInStream : public CBase, public IInStream {
public:
    explicit COptimizingInStream(IInStream* inner, int blockBytes = COptimizingIOStream::defaultBlockBytes);

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
    void checkOpen() const;
    long long readInner(long long start, void* data, long long bytes);

    P<IInStream> inner;
    CURI uri;
    int blockBytes;
    long long position = 0;
    TBuffer<unsigned char> block;
    long long blockStart = -1;
    bool closed = false;
};

} // namespace zu
