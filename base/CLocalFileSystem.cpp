#include "base/CLocalFileSystem.h"

#include "base/CLocalFileStream.h"
#include "base/Log.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace zu {

namespace {

// Takes or changes this descriptor's lock on the whole file (length 0: to
// the end, however the file grows). Returns false when someone else holds a
// conflicting lock; throws for other failures.
bool lockWholeFile(int fd, short lockType, bool wait, const CURI& uri)
{
    struct flock range;
    std::memset(&range, 0, sizeof range);
    range.l_type = lockType;
    range.l_whence = SEEK_SET;
    for (;;) {
        if (::fcntl(fd, wait ? F_OFD_SETLKW : F_OFD_SETLK, &range) == 0) return true;
        if (errno == EINTR) continue;
        if (errno == EAGAIN || errno == EACCES) return false;
        throw CLocalFileStream::makeError(errno, "Cannot lock the lock file", uri);
    }
}

int openLockFile(const std::string& path, IStreamBase::LockType type, const CURI& uri)
{
    // Non-blocking: a FIFO in the lock file's place is refused, not waited on.
    int fd;
    do {
        fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0666);
    } while (fd < 0 && errno == EINTR);
    // A reader on a read-only medium can still share an existing lock file.
    if (fd < 0 && type == IStreamBase::lockShared && (errno == EACCES || errno == EROFS || errno == EPERM)) {
        do {
            fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
        } while (fd < 0 && errno == EINTR);
    }
    if (fd < 0) throw CLocalFileStream::makeError(errno, "Cannot open the lock file", uri);
    try {
        CLocalFileStream::verifyRegularFile(fd, uri, false);
    } catch (...) {
        ::close(fd);
        throw;
    }
    return fd;
}

// Whether the path still names the file we hold open: a holder that removes
// the lock file on release may have deleted it while we waited for it.
bool pathNamesFile(const std::string& path, int fd, const CURI& uri)
{
    struct stat held, named;
    if (::fstat(fd, &held) < 0) throw CLocalFileStream::makeError(errno, "Cannot examine the lock file", uri);
    if (::stat(path.c_str(), &named) < 0) {
        if (errno == ENOENT) return false;
        throw CLocalFileStream::makeError(errno, "Cannot examine the lock file", uri);
    }
    return held.st_dev == named.st_dev && held.st_ino == named.st_ino;
}

struct stat statPath(const CURI& uri, const String& action)
{
    struct stat info;
    if (::stat(CLocalFileSystem::uriToPath(uri).toUTF8().c_str(), &info) < 0)
        throw CLocalFileStream::makeError(errno, action, uri);
    return info;
}

} // namespace

// Holds an open-file-description lock on a lock file. The kernel drops the
// lock when the descriptor is closed, also when the process dies.
class CLocalFileSystem::CLockHandle : public CBase {
public:
    CLockHandle(int fd, const std::string& path, const CURI& uri, bool removeOnRelease)
        : fd(fd), path(path), uri(uri), removeOnRelease(removeOnRelease)
    {
    }

    ~CLockHandle() override
    {
        // Only the last holder may delete the file: the one that can turn
        // its lock into an exclusive one without waiting. Those waiting on the
        // deleted file notice that it is gone and start over.
        if (removeOnRelease && lockWholeFileQuietly() && ::unlink(path.c_str()) < 0 && errno != ENOENT)
            onExceptionInDestructorIgnored("zu::CLocalFileSystem::CLockHandle",
                                           CLocalFileStream::makeError(errno, "Cannot delete the lock file", uri), false);
        ::close(fd);
    }

private:
    bool lockWholeFileQuietly()
    {
        try {
            return lockWholeFile(fd, F_WRLCK, false, uri);
        } catch (const std::exception&) {
            // A descriptor open only for reading cannot lock exclusively.
            return false;
        }
    }

    int fd;
    std::string path;
    CURI uri;
    bool removeOnRelease;
};

P<IIOStream> CLocalFileSystem::openStream(const CURI& uri, int access, const CProps& options)
{
    return newObj<CLocalFileStream>(uri, access, options.get(optionAllowBlockDevice) == String("true"));
}

bool CLocalFileSystem::exists(const CURI& uri)
{
    struct stat info;
    if (::stat(uriToPath(uri).toUTF8().c_str(), &info) == 0) return true;
    if (errno == ENOENT || errno == ENOTDIR) return false;
    throw CLocalFileStream::makeError(errno, "Cannot examine the file", uri);
}

String CLocalFileSystem::getFileIdentity(const CURI& uri)
{
    struct stat info = statPath(uri, "Cannot examine the file");
    return toString(static_cast<unsigned long long>(info.st_dev)) + ":" +
           toString(static_cast<unsigned long long>(info.st_ino));
}

long long CLocalFileSystem::getFileSize(const CURI& uri)
{
    struct stat info = statPath(uri, "Cannot get the size of the file");
    if (S_ISDIR(info.st_mode)) throw CLocalFileStream::makeError(EISDIR, "Cannot get the size of the file", uri);
    return info.st_size;
}

void CLocalFileSystem::deleteFile(const CURI& uri, bool ignoreMissing)
{
    if (::unlink(uriToPath(uri).toUTF8().c_str()) == 0) return;
    if (ignoreMissing && errno == ENOENT) return;
    throw CLocalFileStream::makeError(errno, "Cannot delete the file", uri);
}

void CLocalFileSystem::renameFile(const CURI& from, const CURI& to)
{
    std::string toPath = uriToPath(to).toUTF8();
    if (::rename(uriToPath(from).toUTF8().c_str(), toPath.c_str()) != 0)
        throw CLocalFileStream::makeError(errno, "Cannot rename the file", from);
    // The rename is a change of the folder: it lasts a power loss once the
    // folder itself is synced.
    std::string folder = toPath.substr(0, toPath.find_last_of('/') + 1);
    int fd = ::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) throw CLocalFileStream::makeError(errno, "Cannot sync the folder of the file", to);
    int result = ::fsync(fd);
    int error = errno;
    ::close(fd);
    if (result != 0) throw CLocalFileStream::makeError(error, "Cannot sync the folder of the file", to);
}

P<IBase> CLocalFileSystem::lockFile(const CURI& uri, IStreamBase::LockType type, bool wait, bool removeOnRelease)
{
    std::string path = uriToPath(uri).toUTF8();
    short lockType = type == IStreamBase::lockExclusive ? F_WRLCK : F_RDLCK;
    for (;;) {
        int fd = openLockFile(path, type, uri);
        try {
            if (!lockWholeFile(fd, lockType, wait, uri))
                throw CLockFileError("The lock file is held by another process.", CProps().set("uri", uri.toString(true)));
            if (pathNamesFile(path, fd, uri)) return newObj<CLockHandle>(fd, path, uri, removeOnRelease);
        } catch (...) {
            ::close(fd);
            throw;
        }
        ::close(fd);
    }
}

CURI CLocalFileSystem::pathToURI(const String& path)
{
    if (path.empty()) throw CInvalidArgError("CLocalFileSystem::pathToURI", "The path is empty");
    if (path[0] == L'/') return CURI(CUnixPath(path), true);
    std::unique_ptr<char, decltype(&std::free)> cwd(::getcwd(nullptr, 0), &std::free);
    if (!cwd) throw CLocalFileStream::makeError(errno, "Cannot determine the current directory", CURI());
    return CURI(CUnixPath(String(cwd.get()) + "/" + path), true);
}

String CLocalFileSystem::uriToPath(const CURI& uri)
{
    String authority = uri.getAuthority().toLowerASCII();
    if (uri.getScheme().toLowerASCII() != "file" || (!authority.empty() && authority != "localhost") ||
        uri.getPath().empty())
        throw CInvalidArgError("CLocalFileSystem::uriToPath", "Not a local file URI: '" + uri.toString(true) + "'",
                               CProps().set("uri", uri.toString(true)));
    return uri.getPath();
}

} // namespace zu
