#include "base/CLockFile.h"

namespace zu {

CLockFile::CLockFile(IFileSystem* fileSystem, const CURI& uri, LockType type, bool wait, bool removeOnRelease)
    : uri(uri), type(type)
{
    if (!fileSystem) throw CInvalidArgError("CLockFile constructor", "The file system is null");
    handle = fileSystem->lockFile(uri, type == lockTypeWrite ? IStreamBase::lockExclusive : IStreamBase::lockShared,
                                  wait, removeOnRelease);
}

} // namespace zu
