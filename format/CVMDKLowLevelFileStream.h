// Every file of a disk (descriptor, extents) is opened through
// openVMDKFileStream, which puts the buffering layer over the file system's
// raw stream: metadata accesses are small and many, grain transfers large.
#pragma once

#include "base/COptimizingIOStream.h"
#include "base/IFileSystem.h"

namespace kord {

class CVMDKLowLevelFileStream : public zu::COptimizingIOStream {
public:
    // Opens the file through the file system (its errors pass through).
    CVMDKLowLevelFileStream(zu::IFileSystem* fileSystem, const zu::CURI& uri, int access);
};

zu::P<zu::IIOStream> openVMDKFileStream(zu::IFileSystem* fileSystem, const zu::CURI& uri, int access);

} // namespace kord
