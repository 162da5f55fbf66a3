// An open disk as the Python module's file object sees it: a position that
// may lie anywhere at or after 0 (as in a file), reads that stop at the
// disk's end, and a lock so that Python threads, which call in without the
// interpreter lock, take turns on the disk.
#pragma once

#include "disk/CVMDKDiskIOStream.h"

#include <mutex>

namespace kordpy {

class CPyDisk {
public:
    explicit CPyDisk(kord::CVMDKDisk* disk);

    long long getSize() const { return size; }
    bool isWritable() const { return writable; }
    long long tell();
    // A position past the end is kept; reads there find nothing and writes fail.
    void seek(long long position);
    // Reads up to `bytes` at the position into the caller's memory; 0 at or
    // after the end.
    long long readInto(void* buffer, long long bytes);
    // Writes at the position; a write that does not fit fails with the
    // disk's error.
    void write(const void* buffer, long long bytes);
    void flush();
    // Writes what is pending, then releases the disk and its lock even when
    // that fails (and throws the failure). Closing again does nothing.
    void close();
    bool isClosed();

private:
    void checkOpen() const;

    std::mutex mutex;
    zu::P<kord::CVMDKDiskIOStream> stream;
    const long long size;
    const bool writable;
    long long position = 0;
};

} // namespace kordpy
