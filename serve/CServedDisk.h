// A disk served as a block device: the requests that block-device servers
// (the nbdkit plugin, the FUSE mount) pass on (read, write, zero, flush,
// allocation map) in terms of the disk's byte stream and its grains.
// Callers check that requests lie inside the disk.
//
// It holds the disk for its lifetime; like the disk, it is used by one thread
// at a time.
#pragma once

#include "disk/CVMDKDisk.h"

#include <functional>

namespace kordserve {

class CServedDisk {
public:
    explicit CServedDisk(kord::CVMDKDisk* disk);

    long long getSize() const { return disk->getDiskSizeBytes(); }
    long long getGrainSize() const { return grainSize; }
    bool isWritable() const { return disk->getAccess() == zu::IIOStream::accessReadWrite; }

    void read(void* buffer, long long bytes, long long offset);
    void write(const void* buffer, long long bytes, long long offset);
    // Makes the range read as zeros. Grains that read as zeros already (held
    // by no disk of the chain) are left alone, so they stay unallocated;
    // the others are written with zeros. With fastOnly, a range that needs
    // any writing is left unchanged and false is returned.
    bool zero(long long bytes, long long offset, bool fastOnly);
    // Writes the disk's pending changes to its files.
    void flush() { disk->flushChanges(); }

    // Receives consecutive runs from `offset` on: their length and whether
    // they hold data (else they read as zeros without storage). Returning
    // false stops the walk.
    using RunReceiver = std::function<bool(long long offset, long long length, bool allocated)>;
    // Reports the runs of grains written anywhere in the disk's chain that
    // cover at least [offset, offset + bytes); the last run may go on to
    // the end of its grain.
    void mapAllocation(long long bytes, long long offset, const RunReceiver& receive);

private:
    bool isGrainWritten(long long offset);

    zu::P<kord::CVMDKDisk> disk;
    long long grainSize;
    // One grain of zeros, for zeroing written grains.
    zu::TBuffer<unsigned char> zeros;
};

} // namespace kordserve
