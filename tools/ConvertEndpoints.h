// The two ends of kord convert: where the bytes come from (a raw image or
// a disk, whose unwritten grains need not be read) and where they go (a
// raw image that gets holes where nothing is written, or a new disk).
#pragma once

#include "disk/CVMDKDisk.h"

#include <string>

namespace kordtool {

// True when every byte is zero (word by word).
bool isAllZero(const unsigned char* data, long long bytes);

// Whether the file is a VMDK disk's main file (a sparse extent header, or
// a text descriptor) rather than a raw image.
bool isVMDKFile(const std::string& path);

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
    // Deletes what was made, after a failure. Never throws.
    virtual void discard() = 0;
};

// A new raw image (an existing file is not overwritten) of `size` bytes;
// ranges never written stay holes.
class CRawTarget : public IConvertTarget {
public:
    CRawTarget(const std::string& path, long long size);
    void write(long long position, const unsigned char* data, long long bytes) override;
    void finish() override;
    void discard() override;

private:
    zu::CURI uri;
    long long size;
    zu::P<zu::IIOStream> stream;
};

// A new disk made through the library. plainStream: a stream-optimized
// disk is finished as a plain stream file, without our slot-size directory.
class CDiskTarget : public IConvertTarget {
public:
    CDiskTarget(const std::string& path, const kord::CVMDKDisk::CCreateParams& params, bool plainStream = false);
    kord::CVMDKDisk* getDisk() const { return disk; }
    void write(long long position, const unsigned char* data, long long bytes) override;
    void finish() override;
    void discard() override;

private:
    zu::P<kord::CVMDKDisk> disk;
    bool plainStream;
};

} // namespace kordtool
