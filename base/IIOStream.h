// The stream interfaces. Files, buffers, buffering layers and virtual disks
// are all offered through them, so that format code does not care where its
// bytes live.
#pragma once

#include "base/CBase.h"
#include "base/CURI.h"
#include "base/TBuffer.h"

namespace zu {

// Orders writes: a write given a barrier is complete when the barrier is.
// Every stream of these libraries completes its writes before returning, so
// their barriers are satisfied at once.
class IWriteBarrier : public virtual IBase {
public:
    virtual bool isComplete() const = 0;
};

class CDummyWriteBarrier : public CBase, public IWriteBarrier {
public:
    explicit CDummyWriteBarrier(IWriteBarrier* chained = nullptr) : chained(chained) {}
    bool isComplete() const override { return !chained || chained->isComplete(); }

private:
    P<IWriteBarrier> chained;
};

class IStreamBase : public virtual IBase {
public:
    enum LockType {
        lockShared = 1,    // readers: any number may hold it together
        lockExclusive = 2, // a writer: excludes every other holder
    };

    virtual long long getLength() const = 0;
    virtual long long getPosition() const = 0;
    virtual CURI getURI() const = 0;
    virtual void seek(long long position) = 0;
    // Locks [start, start + length) without waiting; length 0 means "to the
    // end of the file, however it grows". Fails with CFileSystemError
    // (problemLocked) when someone else holds a conflicting lock.
    virtual void lockRange(long long start, long long length, LockType type) = 0;
    virtual void close() = 0;
};

class IInStream : public virtual IStreamBase {
public:
    // Reads exactly `bytes` bytes or throws CIOError codeEndOfData.
    virtual void read(void* data, int bytes) = 0;
    // Reads up to `bytes` bytes; returns the count, 0 at the end.
    virtual int readLax(void* data, int bytes) = 0;
    // Reads what can be had without waiting (for files: as readLax).
    virtual int readAvailable(void* data, int bytes) = 0;
    // Waits up to timeoutMs for data; true when data can be read.
    virtual bool waitReadable(int timeoutMs) const = 0;
    virtual bool isEndOfStream() const = 0;
    virtual bool isEndOfStream_NonBlocking() const = 0;
};

class IOutStream : public virtual IStreamBase {
public:
    virtual void write(const void* data, int bytes, IWriteBarrier* barrier = nullptr) = 0;
    // Writes bytes that the stream may keep by reference (the slice keeps its
    // buffer alive) until it has written them; the caller must not change
    // them afterwards.
    virtual void writeKeepBuffer(const TConstBufferSlice<unsigned char>& data, IWriteBarrier* barrier = nullptr) = 0;
    virtual P<IWriteBarrier> createWriteBarrier(IWriteBarrier* chained) = 0;
    // Hands buffered data to the layer below (for files: to the OS).
    virtual void flush() = 0;
    virtual void setLength(long long length) = 0;
};

class IIOStream : public virtual IInStream, public virtual IOutStream {
public:
    // Bit flags: 1 read, 2 write, 4 create when missing, 8 fail when it exists.
    // Only accessReadWrite (3) permits changes to an existing disk.
    enum Access {
        accessRead = 1,
        accessReadWrite = 3,
        accessOpenOrCreate = 7,
        accessCreateNew = 15,
    };
    enum AccessBits { accessBitRead = 1, accessBitWrite = 2, accessBitCreate = 4, accessBitExclusive = 8 };
};

// Alignment rules of streams that transfer directly to a device. A stream
// without constraints answers 1 everywhere.
class IAlignedStreamBase : public virtual IBase {
public:
    virtual int getPositionAlign() const = 0;
    virtual int getBufferAlign() const = 0;
    virtual int getBestPerformancePositionAlign() const = 0;
};

// Buffering streams, for callers that know a small read is not followed by
// its neighbours (a random read): the bytes come from the file as asked,
// without filling a read-ahead block around them. Earlier writes are seen.
class IUnbufferedReadStream : public virtual IBase {
public:
    virtual void readUnbuffered(void* data, int bytes) = 0;
};

// Streams whose data can be made durable (on stable storage, surviving a
// power loss), beyond flush(), which only hands it to the OS.
class IDurableStream : public virtual IBase {
public:
    virtual void sync() = 0;
    // Starts writing what was written so far to stable storage and returns
    // without waiting, so that a long write's final sync() has little left
    // to wait for. Promises nothing about durability.
    virtual void startSync() {}
};

// Makes what was written to the stream durable where the stream can: its
// sync() when it offers one, else its flush() (a stream in memory has
// nothing more to do).
inline void syncStream(IOutStream& stream)
{
    if (auto* durable = tryCast<IDurableStream>(static_cast<IBase*>(&stream)))
        durable->sync();
    else
        stream.flush();
}

} // namespace zu
