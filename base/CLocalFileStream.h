// The raw stream over one local file: positional reads and writes (pread /
// pwrite) at a position of its own, no buffering (put COptimizingIOStream
// over it), range locks that are the kernel's open-file-description locks.
#pragma once

#include "base/CError.h"
#include "base/IIOStream.h"

namespace zu {

class CLocalFileStream : public CBase, public IIOStream, public IAlignedStreamBase, public IDurableStream {
public:
    // Opens the file of a "file" URI. `access` holds IIOStream::AccessBits:
    // read and/or write, create when missing, fail when it exists (with
    // create). Only regular files open (and block devices when allowed);
    // anything else is refused without blocking, even a FIFO that nobody
    // writes to. Throws CFileSystemError with the problem the OS reported,
    // or problemNotRegularFile.
    CLocalFileStream(const CURI& uri, int access, bool allowBlockDevice = false);
    ~CLocalFileStream() override;

    void read(void* data, int bytes) override;
    int readLax(void* data, int bytes) override;
    int readAvailable(void* data, int bytes) override;
    bool waitReadable(int timeoutMs) const override;
    bool isEndOfStream() const override;
    bool isEndOfStream_NonBlocking() const override;
    void write(const void* data, int bytes, IWriteBarrier* barrier = nullptr) override;
    void writeKeepBuffer(const TConstBufferSlice<unsigned char>& data, IWriteBarrier* barrier = nullptr) override;
    P<IWriteBarrier> createWriteBarrier(IWriteBarrier* chained) override;
    // pwrite has already handed the data to the OS: nothing to do.
    void flush() override;
    void setLength(long long length) override;
    long long getLength() const override;
    long long getPosition() const override;
    CURI getURI() const override;
    void seek(long long position) override;
    void lockRange(long long start, long long length, LockType type) override;
    void close() override;

    int getPositionAlign() const override { return 1; }
    int getBufferAlign() const override { return 1; }
    int getBestPerformancePositionAlign() const override { return 1; }
    // fdatasync: the data (and the size) reach stable storage.
    void sync() override;
    // sync_file_range's write-out of the whole file, not waited for.
    void startSync() override;

    // The CFileSystemError for an OS error number: the problem it stands
    // for, a message of `action` and the OS text, properties "uri" and
    // "osError".
    static CFileSystemError makeError(int errorNumber, const String& action, const CURI& uri);

    // Refuses what `fd`, opened with O_NONBLOCK, names unless it is a regular
    // file (or an allowed block device), then makes it blocking again:
    // CFileSystemError problemNotRegularFile or problemIsDirectory.
    static void verifyRegularFile(int fd, const CURI& uri, bool allowBlockDevice);

private:
    void checkOpen() const;
    void checkAccess(int bit) const;
    void writeAt(const void* data, long long bytes);
    [[noreturn]] void throwIOError(long long code, int errorNumber, const String& action, long long bytes) const;

    CURI uri;
    int access;
    int fd = -1;
    long long position = 0;
};

} // namespace zu
