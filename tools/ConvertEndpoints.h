// The two ends of kord convert: where the bytes come from (a raw image or
// a disk, whose unwritten grains need not be read) and where they go (a
// raw image that gets holes where nothing is written, or a new disk). The
// output is made under temporary names and takes its own names only when
// it is complete and durable: a conversion that fails or is killed leaves
// nothing under the destination's name.
#pragma once

#include "disk/CVMDKDisk.h"

#include <string>

namespace kordtool {

// True when every byte is zero (word by word).
bool isAllZero(const unsigned char* data, long long bytes);

class IConvertSource {
public:
    virtual ~IConvertSource() = default;
    virtual long long getSizeBytes() const = 0;
    // Reads `bytes` at `position` into buffer and returns true; or returns
    // false without reading when the source holds nothing there (the range
    // reads as zeros).
    virtual bool read(long long position, unsigned char* buffer, long long bytes) = 0;
};

class CRawSource : public IConvertSource {
public:
    explicit CRawSource(const std::string& path);
    long long getSizeBytes() const override { return size; }
    bool read(long long position, unsigned char* buffer, long long bytes) override;

private:
    zu::P<zu::IIOStream> stream;
    long long size;
};

class CDiskSource : public IConvertSource {
public:
    explicit CDiskSource(kord::CVMDKDisk* disk) : disk(disk) {}
    kord::CVMDKDisk* getDisk() const { return disk; }
    long long getSizeBytes() const override { return disk->getDiskSizeBytes(); }
    bool read(long long position, unsigned char* buffer, long long bytes) override;

private:
    zu::P<kord::CVMDKDisk> disk;
};

class IConvertTarget {
public:
    virtual ~IConvertTarget() = default;
    virtual void write(long long position, const unsigned char* data, long long bytes) = 0;
    // Completes the output: the raw image's full length, the disk's metadata.
    virtual void finish() = 0;
};

// A raw image of `size` bytes written through a stream on a new file;
// ranges never written stay holes. Write-out to storage is started every
// few dozen MiB, so that it overlaps the conversion instead of all being
// waited for by the sync at the end.
class CRawTarget : public IConvertTarget {
public:
    CRawTarget(zu::IIOStream& stream, long long size);
    void write(long long position, const unsigned char* data, long long bytes) override;
    void finish() override;

private:
    zu::IIOStream& stream;
    long long size;
    long long unsyncedBytes = 0;
};

// A new disk made through the library under temporary names (the main
// file's title plus ".kord-tmp"); finish() makes it durable and gives its
// files their own names, the main file last. Nothing is synced before.
// plainStream: a stream-optimized disk is finished as a plain stream file,
// without our slot-size directory.
class CDiskTarget : public IConvertTarget {
public:
    // Refuses (zu::CFileSystemError) when a file of the disk exists.
    CDiskTarget(const std::string& path, const kord::CVMDKDisk::CCreateParams& params, bool plainStream = false);
    kord::CVMDKDisk* getDisk() const { return disk; }
    void write(long long position, const unsigned char* data, long long bytes) override;
    void finish() override;
    // Deletes what was made, after a failure. Never throws.
    void discard();

private:
    // The file extent line `extentIndex` names once the disk is complete.
    zu::CURI finalURI(int extentIndex) const;
    void deleteTemporaryFiles() const;

    zu::CURI mainURI;
    zu::CURI temporaryURI;
    bool split;
    zu::P<kord::CVMDKDisk> disk;
    bool plainStream;
};

} // namespace kordtool
