// A lock file beside a disk: it keeps other processes from writing a disk
// that is in use. It relies on the operating system's advisory locks, not on
// the file's existence, so a lock file left behind by a crashed process does
// not block anybody.
#pragma once

#include "base/CBase.h"
#include "base/CURI.h"
#include "base/IFileSystem.h"

namespace zu {

class CLockFile : public CBase {
public:
    enum LockType {
        lockTypeRead = 1,  // shared with other readers; refused while a writer holds it
        lockTypeWrite = 2, // exclusive
    };

    // Takes the lock for the lifetime of the object.
    // wait: block until the lock is free instead of failing at once.
    // removeOnRelease: delete the lock file when the last holder releases it.
    // Throws CLockFileError when another process holds a conflicting lock, and
    // the file system's errors when the lock file cannot be created.
    CLockFile(IFileSystem* fileSystem, const CURI& uri, LockType type, bool wait, bool removeOnRelease);

    const CURI& getURI() const { return uri; }
    LockType getType() const { return type; }

private:
    CURI uri;
    LockType type;
    P<IBase> handle;
};

} // namespace zu
