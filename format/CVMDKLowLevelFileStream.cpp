#include "format/CVMDKLowLevelFileStream.h"

#include "base/Log.h"

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

void writeVMDKFileAtomically(zu::IFileSystem* fileSystem, const zu::CURI& uri, bool replace,
                             const std::function<void(zu::IIOStream& stream)>& fill)
{
    if (!replace && fileSystem->exists(uri))
        throw zu::CFileSystemError(zu::CFileSystemError::problemAlreadyExists, "Cannot create the file: it exists.",
                                   zu::CProps().set("uri", uri.toString(true)));
    zu::CURI temporary(uri.getParent(), uri.getName() + ".kord-new");
    fileSystem->deleteFile(temporary, true);
    zu::P<zu::IIOStream> stream = openVMDKFileStream(fileSystem, temporary, zu::IIOStream::accessCreateNew);
    try {
        fill(*stream);
        zu::syncStream(*stream);
        stream->close();
        fileSystem->renameFile(temporary, uri);
    } catch (const std::exception&) {
        try {
            stream->close();
            fileSystem->deleteFile(temporary, true);
        } catch (const std::exception& e) {
            zu::logError(e, "Error deleting an unfinished temporary file. Ignoring.");
        }
        throw;
    }
}

} // namespace kord
