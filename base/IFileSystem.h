// The file system the caller hands to the libraries. Every file of a disk is
// opened, tested, locked and deleted through it; the libraries never touch
// files any other way.
#pragma once

#include "base/CBase.h"
#include "base/CProps.h"
#include "base/CURI.h"
#include "base/IIOStream.h"

namespace zu {

class IFileSystem : public virtual IBase {
public:
    // Option of openStream: "true" lets a block device open where a
    // regular file is expected (a disk may use one as a flat extent).
    static constexpr const char* optionAllowBlockDevice = "allowBlockDevice";

    // Opens a stream on the file. Access is an IIOStream::Access value.
    // Only regular files open (block devices too with
    // optionAllowBlockDevice); FIFOs, sockets, devices and directories throw
    // CFileSystemError problemNotRegularFile (or problemIsDirectory) at
    // once, without waiting for a writer. A missing file (without the
    // create bit) throws CFileSystemError problemNotFound; an existing one
    // with accessCreateNew throws problemAlreadyExists.
    virtual P<IIOStream> openStream(const CURI& uri, int access, const CProps& options) = 0;
    virtual bool exists(const CURI& uri) = 0;
    // A text that is equal for two URIs exactly when they name the same
    // file, also through links. The file must exist. Without links in
    // the file system, the normalised URI serves.
    virtual String getFileIdentity(const CURI& uri) { return uri.toNormalized().toString(true); }
    // Size in bytes; CFileSystemError problemNotFound when missing.
    virtual long long getFileSize(const CURI& uri) = 0;
    // Deletes the file. With ignoreMissing a missing file is not an error.
    virtual void deleteFile(const CURI& uri, bool ignoreMissing) = 0;
    // Gives the file `from` the name `to`, replacing a file of that name in
    // one step: anyone opening `to` finds the old file or the new one, never
    // neither. Both names must be in the same folder. The new name is
    // durable when this returns. CFileSystemError problemNotFound when
    // `from` is missing.
    virtual void renameFile(const CURI& from, const CURI& to) = 0;
    // Takes an advisory lock on the file (created when missing) and returns
    // the handle that holds it: the lock lasts until the handle's last
    // reference goes. Locks held by a process that died are gone with it.
    // Without `wait`, a conflicting lock throws CLockFileError at once.
    // With `removeOnRelease` the file is deleted when the last holder lets go.
    virtual P<IBase> lockFile(const CURI& uri, IStreamBase::LockType type, bool wait, bool removeOnRelease) = 0;
};

} // namespace zu
