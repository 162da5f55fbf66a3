#include "base/CLocalFileStream.h"

#include "base/CIOError.h"
#include "base/CLocalFileSystem.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zu {

namespace {

// The largest single pread/pwrite we issue; Linux transfers at most about
// this much per call anyway.
constexpr long long maxTransfer = 1LL << 30;

int problemFromErrno(int errorNumber)
{
    switch (errorNumber) {
    case ENOENT:
    case ENOTDIR:
        return CFileSystemError::problemNotFound;
    case EEXIST:
        return CFileSystemError::problemAlreadyExists;
    case EACCES:
    case EPERM:
    case EROFS:
    case ETXTBSY:
        return CFileSystemError::problemAccessDenied;
    case EISDIR:
        return CFileSystemError::problemIsDirectory;
    case ENOSPC:
    case EDQUOT:
        return CFileSystemError::problemNoSpace;
    case ENOTSUP:
    case ENOSYS:
        return CFileSystemError::problemNotSupported;
    case EAGAIN:
        return CFileSystemError::problemLocked;
    case ENAMETOOLONG:
    case ELOOP:
        return CFileSystemError::problemInvalidName;
    case EIO:
        return CFileSystemError::problemIO;
    default:
        return CFileSystemError::problemUnknown;
    }
}

const char* fileTypeName(mode_t mode)
{
    if (S_ISFIFO(mode)) return "a FIFO";
    if (S_ISSOCK(mode)) return "a socket";
    if (S_ISCHR(mode)) return "a character device";
    if (S_ISBLK(mode)) return "a block device";
    return "a special file";
}

String osErrorText(int errorNumber)
{
    char text[256];
    return String(strerror_r(errorNumber, text, sizeof text));
}

int openFlags(int access, const CURI& uri)
{
    bool readBit = (access & IIOStream::accessBitRead) != 0;
    bool writeBit = (access & IIOStream::accessBitWrite) != 0;
    if (access < 0 || access > IIOStream::accessCreateNew || (!readBit && !writeBit))
        throw CInvalidArgError("CLocalFileStream", "Invalid access mode",
                               CProps().set("access", access).set("uri", uri.toString(true)));
    int flags = O_CLOEXEC | (readBit && writeBit ? O_RDWR : writeBit ? O_WRONLY : O_RDONLY);
    if (access & IIOStream::accessBitCreate) {
        flags |= O_CREAT;
        if (access & IIOStream::accessBitExclusive) flags |= O_EXCL;
    }
    return flags;
}

} // namespace

CFileSystemError CLocalFileStream::makeError(int errorNumber, const String& action, const CURI& uri)
{
    return CFileSystemError(problemFromErrno(errorNumber), action + ": " + osErrorText(errorNumber) + ".",
                            CProps().set("uri", uri.toString(true)).set("osError", errorNumber));
}

CLocalFileStream::CLocalFileStream(const CURI& uri, int access, bool allowBlockDevice) : uri(uri), access(access)
{
    // Non-blocking, so that opening a FIFO returns at once and can be refused.
    int flags = openFlags(access, uri) | O_NONBLOCK;
    std::string path = CLocalFileSystem::uriToPath(uri).toUTF8();
    do {
        fd = ::open(path.c_str(), flags, 0666);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) throw makeError(errno, "Cannot open the file", uri);
    try {
        verifyRegularFile(fd, uri, allowBlockDevice);
    } catch (...) {
        ::close(fd);
        fd = -1;
        throw;
    }
}

void CLocalFileStream::verifyRegularFile(int fd, const CURI& uri, bool allowBlockDevice)
{
    struct stat info;
    if (::fstat(fd, &info) < 0) throw makeError(errno, "Cannot examine the file", uri);
    if (S_ISDIR(info.st_mode)) throw makeError(EISDIR, "Cannot open the file", uri);
    if (!S_ISREG(info.st_mode) && !(allowBlockDevice && S_ISBLK(info.st_mode)))
        throw CFileSystemError(CFileSystemError::problemNotRegularFile,
                               "Cannot open the file: it is " + String(fileTypeName(info.st_mode)) +
                                   ", not a regular file.",
                               CProps().set("uri", uri.toString(true)));
    // Reads and writes of files and devices wait for the data as usual.
    int fileFlags = ::fcntl(fd, F_GETFL);
    if (fileFlags < 0 || ::fcntl(fd, F_SETFL, fileFlags & ~O_NONBLOCK) < 0)
        throw makeError(errno, "Cannot open the file", uri);
}

CLocalFileStream::~CLocalFileStream()
{
    if (fd >= 0) ::close(fd);
}

void CLocalFileStream::checkOpen() const
{
    if (fd < 0) throw CIOError(CIOError::codeClosed, String(), CProps().set("uri", uri.toString(true)));
}

// The kernel would refuse with EBADF; say what is really wrong.
void CLocalFileStream::checkAccess(int bit) const
{
    checkOpen();
    if (access & bit) return;
    bool write = bit == IIOStream::accessBitWrite;
    throw CIOError(write ? CIOError::codeWrite : CIOError::codeRead,
                   write ? "Error writing data. The stream is open for reading only."
                         : "Error reading data. The stream is open for writing only.",
                   CProps().set("uri", uri.toString(true)));
}

void CLocalFileStream::throwIOError(long long code, int errorNumber, const String& action, long long bytes) const
{
    CFileSystemError cause = makeError(errorNumber, action, uri);
    throw CIOError(code, CIOError::getStandardMessage(code) + " " + cause.getMessage(),
                   CProps().set("uri", uri.toString(true)).set("position", position).set("bytes", bytes), &cause);
}

void CLocalFileStream::read(void* data, int bytes)
{
    long long start = position;
    int got = readLax(data, bytes);
    if (got < bytes) {
        // A failed read leaves the position where it was.
        position = start;
        throw CIOError(CIOError::codeEndOfData, String(),
                       CProps().set("uri", uri.toString(true)).set("position", start).set("bytesToRead", bytes));
    }
}

int CLocalFileStream::readLax(void* data, int bytes)
{
    checkAccess(accessBitRead);
    if (bytes < 0) throw CInvalidArgError("CLocalFileStream::readLax", "Negative byte count");
    char* p = static_cast<char*>(data);
    int done = 0;
    while (done < bytes) {
        ssize_t n = ::pread(fd, p + done, static_cast<std::size_t>(bytes - done), position);
        if (n < 0) {
            if (errno == EINTR) continue;
            throwIOError(CIOError::codeRead, errno, "Cannot read from the file", bytes - done);
        }
        if (n == 0) break;
        done += static_cast<int>(n);
        position += n;
    }
    return done;
}

int CLocalFileStream::readAvailable(void* data, int bytes) { return readLax(data, bytes); }

bool CLocalFileStream::waitReadable(int) const
{
    checkOpen();
    return true;
}

bool CLocalFileStream::isEndOfStream() const { return position >= getLength(); }
bool CLocalFileStream::isEndOfStream_NonBlocking() const { return isEndOfStream(); }

void CLocalFileStream::write(const void* data, int bytes, IWriteBarrier*)
{
    if (bytes < 0) throw CInvalidArgError("CLocalFileStream::write", "Negative byte count");
    writeAt(data, bytes);
}

void CLocalFileStream::writeKeepBuffer(const TConstBufferSlice<unsigned char>& data, IWriteBarrier*)
{
    writeAt(data.getData(), data.getLength());
}

void CLocalFileStream::writeAt(const void* data, long long bytes)
{
    checkAccess(accessBitWrite);
    const char* p = static_cast<const char*>(data);
    for (long long done = 0; done < bytes;) {
        std::size_t chunk = static_cast<std::size_t>(std::min(bytes - done, maxTransfer));
        ssize_t n = ::pwrite(fd, p + done, chunk, position);
        if (n < 0 && errno == EINTR) continue;
        // pwrite returns 0 only when it cannot make progress; do not spin.
        if (n <= 0) throwIOError(CIOError::codeWrite, n < 0 ? errno : EIO, "Cannot write to the file", bytes - done);
        done += n;
        position += n;
    }
}

P<IWriteBarrier> CLocalFileStream::createWriteBarrier(IWriteBarrier* chained)
{
    checkOpen();
    return newObj<CDummyWriteBarrier>(chained);
}

void CLocalFileStream::flush() { checkOpen(); }

void CLocalFileStream::setLength(long long length)
{
    checkAccess(accessBitWrite);
    if (length < 0) throw CInvalidArgError("CLocalFileStream::setLength", "Negative length", CProps().set("length", length));
    int result;
    do {
        result = ::ftruncate(fd, length);
    } while (result < 0 && errno == EINTR);
    if (result < 0) throwIOError(CIOError::codeResize, errno, "Cannot change the size of the file", length);
}

long long CLocalFileStream::getLength() const
{
    checkOpen();
    struct stat info;
    if (::fstat(fd, &info) < 0) throwIOError(CIOError::codeUnknown, errno, "Cannot get the size of the file", 0);
    return info.st_size;
}

long long CLocalFileStream::getPosition() const
{
    checkOpen();
    return position;
}

CURI CLocalFileStream::getURI() const { return uri; }

void CLocalFileStream::seek(long long newPosition)
{
    checkOpen();
    if (newPosition < 0)
        throw CInvalidArgError("CLocalFileStream::seek", "Negative position", CProps().set("position", newPosition));
    position = newPosition;
}

void CLocalFileStream::lockRange(long long start, long long length, LockType type)
{
    checkOpen();
    if (start < 0 || length < 0)
        throw CInvalidArgError("CLocalFileStream::lockRange", "Negative start or length",
                               CProps().set("start", start).set("length", length));
    struct flock range;
    std::memset(&range, 0, sizeof range);
    range.l_type = type == lockExclusive ? F_WRLCK : F_RDLCK;
    range.l_whence = SEEK_SET;
    range.l_start = start;
    range.l_len = length;
    if (::fcntl(fd, F_OFD_SETLK, &range) == 0) return;
    int errorNumber = errno;
    CProps props = CProps().set("uri", uri.toString(true)).set("start", start).set("length", length);
    if (errorNumber == EAGAIN || errorNumber == EACCES)
        throw CFileSystemError(CFileSystemError::problemLocked, "The file range is locked by someone else.", props);
    CFileSystemError error = makeError(errorNumber, "Cannot lock the file range", uri);
    error.setProp("start", toString(start)).setProp("length", toString(length));
    throw error;
}

void CLocalFileStream::close()
{
    if (fd < 0) return;
    int result = ::close(fd);
    fd = -1;
    // EINTR leaves the descriptor closed on Linux; EIO reports a write that failed late.
    if (result < 0 && errno != EINTR) throwIOError(CIOError::codeWrite, errno, "Cannot close the file", 0);
}

void CLocalFileStream::sync()
{
    checkOpen();
    int result;
    do {
        result = ::fdatasync(fd);
    } while (result < 0 && errno == EINTR);
    if (result < 0) throwIOError(CIOError::codeWrite, errno, "Cannot sync the file", 0);
}

void CLocalFileStream::startSync()
{
    checkOpen();
    // Only a hint: a file system without it still syncs fully in sync().
    if (::sync_file_range(fd, 0, 0, SYNC_FILE_RANGE_WRITE) < 0 && errno != EINTR && errno != ESPIPE &&
        errno != EINVAL && errno != ENOSYS)
        throwIOError(CIOError::codeWrite, errno, "Cannot sync the file", 0);
}

} // namespace zu
