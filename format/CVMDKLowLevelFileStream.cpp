#include "format/CVMDKLowLevelFileStream.h"

namespace kord {

namespace {

zu::P<zu::IIOStream> openRaw(zu::IFileSystem* fileSystem, const zu::CURI& uri, int access)
{
    return fileSystem->openStream(uri, access, zu::CProps());
}

} // namespace

CVMDKLowLevelFileStream::CVMDKLowLevelFileStream(zu::IFileSystem* fileSystem, const zu::CURI& uri, int access)
    : zu::COptimizingIOStream(openRaw(fileSystem, uri, access))
{
}

zu::P<zu::IIOStream> openVMDKFileStream(zu::IFileSystem* fileSystem, const zu::CURI& uri, int access)
{
    return zu::newObj<CVMDKLowLevelFileStream>(fileSystem, uri, access);
}

} // namespace kord
