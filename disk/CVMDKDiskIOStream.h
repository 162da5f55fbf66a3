// A virtual disk offered through the base library's stream interface, so
// that code written for streams (copying, hashing, file-system readers) can
// read and write a disk's contents. It owns the disk; closing the stream
// flushes and closes the disk.
#pragma once

#include "base/IIOStream.h"
#include "disk/CVMDKDisk.h"

namespace kord {

class CVMDKDiskIOStream : public zu::CBase, public zu::IIOStream {
public:
    // Opens the disk itself (default compression, its own grain table cache, no parent given).
    CVMDKDiskIOStream(zu::IFileSystem* fileSystem, const zu::CURI& uri, int access, const zu::String& password);
    // Adopts a disk the caller opened.
    explicit CVMDKDiskIOStream(CVMDKDisk* disk);
    ~CVMDKDiskIOStream() override;

    CVMDKDisk* getDisk() const { return disk; }

    void read(void* data, int bytes) override;
    int readLax(void* data, int bytes) override;
    int readAvailable(void* data, int bytes) override { return readLax(data, bytes); }
    bool waitReadable(int timeoutMs) const override;
    bool isEndOfStream() const override;
    bool isEndOfStream_NonBlocking() const override { return isEndOfStream(); }
    void write(const void* data, int bytes, zu::IWriteBarrier* barrier = nullptr) override;
    void writeKeepBuffer(const zu::TConstBufferSlice<unsigned char>& data, zu::IWriteBarrier* barrier = nullptr) override;
    // Writes complete before write returns: the barrier is satisfied at once.
    zu::P<zu::IWriteBarrier> createWriteBarrier(zu::IWriteBarrier* chained) override;
    void flush() override;
    // A disk's size is fixed: always refused.
    void setLength(long long length) override;
    long long getLength() const override;
    long long getPosition() const override;
    zu::CURI getURI() const override { return uri; }
    void seek(long long position) override;
    // Not supported: zu::CFileSystemError (problem 6).
    void lockRange(long long start, long long length, LockType type) override;
    void close() override;

private:
    void construct(CVMDKDisk* adopted);
    CVMDKDisk* openDisk() const;

    zu::P<CVMDKDisk> disk;
    zu::CURI uri;
};

} // namespace kord
