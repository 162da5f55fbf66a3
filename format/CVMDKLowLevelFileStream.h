// Every file of a disk (descriptor, extents) is opened through
// openVMDKFileStream, which puts the buffering layer over the file system's
// raw stream: metadata accesses are small and many, grain transfers large.
#pragma once

#include "base/COptimizingIOStream.h"
#include "base/IFileSystem.h"

#include <functional>

namespace kord {

class CVMDKLowLevelFileStream : public zu::COptimizingIOStream {
public:
    // Opens the file through the file system (its errors pass through).
    CVMDKLowLevelFileStream(zu::IFileSystem* fileSystem, const zu::CURI& uri, int access);
};

zu::P<zu::IIOStream> openVMDKFileStream(zu::IFileSystem* fileSystem, const zu::CURI& uri, int access);

// Writes the file `uri` so that it holds its old content or the new, never
// a part (a new file appears whole or not at all): `fill` writes the new
// content into a stream on a temporary file beside it (the name plus
// ".kord-new", replacing one an earlier attempt left), which is then synced
// and renamed over `uri`, durably. Without `replace` an existing file is
// not touched: zu::CFileSystemError problemAlreadyExists. On failure the
// temporary file is deleted and the error passed on.
void writeVMDKFileAtomically(zu::IFileSystem* fileSystem, const zu::CURI& uri, bool replace,
                             const std::function<void(zu::IIOStream& stream)>& fill);

} // namespace kord
