// The local POSIX file system: "file" URIs map to paths, streams use
// positional reads and writes (pread/pwrite), locks are the kernel's
// open-file-description locks, which die with the process that held them.
#pragma once

#include "base/IFileSystem.h"

namespace zu {

class CLocalFileSystem : public CBase, public IFileSystem {
public:
    P<IIOStream> openStream(const CURI& uri, int access, const CProps& options) override;
    bool exists(const CURI& uri) override;
    // The device and inode numbers: symbolic and hard links name the same file.
    String getFileIdentity(const CURI& uri) override;
    long long getFileSize(const CURI& uri) override;
    void deleteFile(const CURI& uri, bool ignoreMissing) override;
    void renameFile(const CURI& from, const CURI& to) override;
    P<IBase> lockFile(const CURI& uri, IStreamBase::LockType type, bool wait, bool removeOnRelease) override;

    // A "file" URI for a local path; a relative path is taken relative to the
    // current directory.
    static CURI pathToURI(const String& path);
    // The local path of a "file" URI; CInvalidArgError for other schemes.
    static String uriToPath(const CURI& uri);

private:
    class CLockHandle;
};

} // namespace zu
