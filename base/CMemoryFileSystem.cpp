#include "base/CMemoryFileSystem.h"

#include "base/CIOError.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstring>
#include <thread>
#include <vector>

namespace zu {

namespace {

// No real file reaches 2^62 bytes; refusing positions beyond keeps position
// plus transfer size from overflowing.
constexpr long long maxPosition = 1LL << 62;

CProps uriProps(const CURI& uri) { return CProps().set("uri", uri.toString(true)); }

void checkAccessMode(int access, const CURI& uri)
{
    if (access < 0 || access > IIOStream::accessCreateNew ||
        (access & (IIOStream::accessBitRead | IIOStream::accessBitWrite)) == 0)
        throw CInvalidArgError("CMemoryFileSystem::openStream", "Invalid access mode",
                               uriProps(uri).set("access", access));
}

} // namespace

// One file: its bytes, shared by every stream open on it, and the locks
// held on it. Guarded by the file system's mutex.
class CMemoryFileSystem::CFile : public CBase {
public:
    // Locks as the kernel's open-file-description locks behave: each owner
    // (stream or lock handle) conflicts with every other one, in this
    // process as well; an owner relocking the same range changes its type.
    bool tryLock(const void* owner, long long start, long long length, IStreamBase::LockType type)
    {
        if (!canLock(owner, start, length, type)) return false;
        locks.erase(std::remove_if(locks.begin(), locks.end(),
                                   [&](const Lock& l) { return l.owner == owner && l.start == start && l.length == length; }),
                    locks.end());
        locks.push_back(Lock{owner, start, length, type});
        return true;
    }

    bool canLock(const void* owner, long long start, long long length, IStreamBase::LockType type) const
    {
        for (const Lock& l : locks)
            if (l.owner != owner && l.start < end(start, length) && start < end(l.start, l.length) &&
                (l.type == IStreamBase::lockExclusive || type == IStreamBase::lockExclusive))
                return false;
        return true;
    }

    void unlockAll(const void* owner)
    {
        locks.erase(std::remove_if(locks.begin(), locks.end(), [&](const Lock& l) { return l.owner == owner; }),
                    locks.end());
    }

    // Grows the file with zeros up to `length` (never shrinks).
    void extend(long long length)
    {
        long long old = data->getUsed();
        if (length <= old) return;
        data->setUsed(length);
        std::memset(data->getData() + old, 0, static_cast<std::size_t>(length - old));
    }

    P<TBuffer<unsigned char>> data = newObj<TBuffer<unsigned char>>();

private:
    struct Lock {
        const void* owner;
        long long start;
        long long length; // 0: to the end of the file, however it grows
        IStreamBase::LockType type;
    };

    static long long end(long long start, long long length) { return length == 0 ? LLONG_MAX : start + length; }

    std::vector<Lock> locks;
};

// The handle returned by lockFile: holds a whole-file lock until it goes.
class CMemoryFileSystem::CLock : public CBase {
public:
    CLock(CMemoryFileSystem* fileSystem, CFile* file, const String& key, bool removeOnRelease)
        : fileSystem(fileSystem), file(file), key(key), removeOnRelease(removeOnRelease)
    {
    }

    ~CLock() override
    {
        CMutexLock lock(fileSystem->mutex);
        // As on disk: only a holder that could lock exclusively (the last
        // one) deletes the file, and only if the name still refers to it.
        if (removeOnRelease && file->canLock(this, 0, 0, IStreamBase::lockExclusive)) {
            auto it = fileSystem->files.find(key);
            if (it != fileSystem->files.end() && it->second == file) fileSystem->files.erase(it);
        }
        file->unlockAll(this);
    }

private:
    P<CMemoryFileSystem> fileSystem;
    P<CFile> file;
    String key;
    bool removeOnRelease;
};

// A stream on one file. It may outlive the file system and the file's name
// (a deleted file stays readable through streams open on it, as on Linux).
class CMemoryFileSystem::CStream : public CBase, public IIOStream, public IAlignedStreamBase, public IDurableStream {
public:
    CStream(CMutex* mutex, CFile* file, const CURI& uri, int access) : mutex(mutex), file(file), uri(uri), access(access) {}
    ~CStream() override { close(); }

    void read(void* data, int bytes) override
    {
        CMutexLock lock(mutex);
        checkAccess(accessBitRead);
        if (bytes > 0 && bytes > file->data->getUsed() - position)
            throw CIOError(CIOError::codeEndOfData, String(),
                           uriProps(uri).set("position", position).set("bytesToRead", bytes));
        readLax(data, bytes);
    }

    int readLax(void* data, int bytes) override
    {
        CMutexLock lock(mutex);
        checkAccess(accessBitRead);
        if (bytes < 0) throw CInvalidArgError("CMemoryFileSystem::CStream::readLax", "Negative byte count");
        long long count = std::min<long long>(bytes, std::max(0LL, file->data->getUsed() - position));
        if (count > 0) std::memcpy(data, file->data->getData() + position, static_cast<std::size_t>(count));
        position += count;
        return static_cast<int>(count);
    }

    int readAvailable(void* data, int bytes) override { return readLax(data, bytes); }
    bool waitReadable(int) const override { return true; }
    bool isEndOfStream() const override { return getPosition() >= getLength(); }
    bool isEndOfStream_NonBlocking() const override { return isEndOfStream(); }

    void write(const void* data, int bytes, IWriteBarrier*) override
    {
        if (bytes < 0) throw CInvalidArgError("CMemoryFileSystem::CStream::write", "Negative byte count");
        writeAt(data, bytes);
    }

    void writeKeepBuffer(const TConstBufferSlice<unsigned char>& data, IWriteBarrier*) override
    {
        writeAt(data.getData(), data.getLength());
    }

    P<IWriteBarrier> createWriteBarrier(IWriteBarrier* chained) override
    {
        CMutexLock lock(mutex);
        checkOpen();
        return newObj<CDummyWriteBarrier>(chained);
    }

    void flush() override
    {
        CMutexLock lock(mutex);
        checkOpen();
    }

    void setLength(long long length) override
    {
        CMutexLock lock(mutex);
        checkAccess(accessBitWrite);
        if (length < 0)
            throw CInvalidArgError("CMemoryFileSystem::CStream::setLength", "Negative length", CProps().set("length", length));
        if (length < file->data->getUsed())
            file->data->setUsed(length);
        else
            file->extend(length);
    }

    long long getLength() const override
    {
        CMutexLock lock(mutex);
        checkOpen();
        return file->data->getUsed();
    }

    long long getPosition() const override
    {
        CMutexLock lock(mutex);
        checkOpen();
        return position;
    }

    CURI getURI() const override { return uri; }

    void seek(long long newPosition) override
    {
        CMutexLock lock(mutex);
        checkOpen();
        if (newPosition < 0 || newPosition > maxPosition)
            throw CInvalidArgError("CMemoryFileSystem::CStream::seek", "Position out of range",
                                   CProps().set("position", newPosition));
        position = newPosition;
    }

    void lockRange(long long start, long long length, LockType type) override
    {
        CMutexLock lock(mutex);
        checkOpen();
        if (start < 0 || length < 0)
            throw CInvalidArgError("CMemoryFileSystem::CStream::lockRange", "Negative start or length",
                                   CProps().set("start", start).set("length", length));
        if (!file->tryLock(this, start, length, type))
            throw CFileSystemError(CFileSystemError::problemLocked, "The file range is locked by someone else.",
                                   uriProps(uri).set("start", start).set("length", length));
    }

    void close() override
    {
        CMutexLock lock(mutex);
        if (closed) return;
        closed = true;
        file->unlockAll(this);
    }

    int getPositionAlign() const override { return 1; }
    int getBufferAlign() const override { return 1; }
    int getBestPerformancePositionAlign() const override { return 1; }
    void sync() override { flush(); }

private:
    void checkOpen() const
    {
        if (closed) throw CIOError(CIOError::codeClosed, String(), uriProps(uri));
    }

    void checkAccess(int bit) const
    {
        checkOpen();
        if (access & bit) return;
        bool write = bit == accessBitWrite;
        throw CIOError(write ? CIOError::codeWrite : CIOError::codeRead,
                       write ? "Error writing data. The stream is open for reading only."
                             : "Error reading data. The stream is open for writing only.",
                       uriProps(uri));
    }

    void writeAt(const void* data, long long bytes)
    {
        CMutexLock lock(mutex);
        checkAccess(accessBitWrite);
        if (bytes == 0) return;
        file->extend(position + bytes);
        std::memcpy(file->data->getData() + position, data, static_cast<std::size_t>(bytes));
        position += bytes;
    }

    P<CMutex> mutex;
    P<CFile> file;
    CURI uri;
    int access;
    long long position = 0;
    bool closed = false;
};

CMemoryFileSystem::CMemoryFileSystem() : mutex(newObj<CMutex>()) {}

CMemoryFileSystem::~CMemoryFileSystem() = default;

String CMemoryFileSystem::key(const CURI& uri) const { return uri.toNormalized().toString(false); }

P<CMemoryFileSystem::CFile> CMemoryFileSystem::findFile(const String& fileKey, bool create)
{
    auto it = files.find(fileKey);
    if (it != files.end()) return it->second;
    if (!create) return nullptr;
    P<CFile> file = newObj<CFile>();
    files[fileKey] = file;
    return file;
}

P<IIOStream> CMemoryFileSystem::openStream(const CURI& uri, int access, const CProps&)
{
    checkAccessMode(access, uri);
    CMutexLock lock(mutex);
    String fileKey = key(uri);
    bool found = files.count(fileKey) != 0;
    bool create = (access & IIOStream::accessBitCreate) != 0;
    // The same order of checks as open(2): missing, read-only medium, exists.
    if (!found && !create)
        throw CFileSystemError(CFileSystemError::problemNotFound, "Cannot open the file: no such file.", uriProps(uri));
    if (readOnly && ((access & IIOStream::accessBitWrite) || !found))
        throw CFileSystemError(CFileSystemError::problemAccessDenied, "Cannot open the file: the file system is read-only.",
                               uriProps(uri));
    if (found && create && (access & IIOStream::accessBitExclusive))
        throw CFileSystemError(CFileSystemError::problemAlreadyExists, "Cannot open the file: the file exists.",
                               uriProps(uri));
    return newObj<CStream>(mutex, findFile(fileKey, true), uri, access);
}

bool CMemoryFileSystem::exists(const CURI& uri)
{
    CMutexLock lock(mutex);
    return files.count(key(uri)) != 0;
}

long long CMemoryFileSystem::getFileSize(const CURI& uri)
{
    CMutexLock lock(mutex);
    P<CFile> file = findFile(key(uri), false);
    if (!file)
        throw CFileSystemError(CFileSystemError::problemNotFound, "Cannot get the size of the file: no such file.",
                               uriProps(uri));
    return file->data->getUsed();
}

void CMemoryFileSystem::deleteFile(const CURI& uri, bool ignoreMissing)
{
    CMutexLock lock(mutex);
    auto it = files.find(key(uri));
    if (it == files.end()) {
        if (ignoreMissing) return;
        throw CFileSystemError(CFileSystemError::problemNotFound, "Cannot delete the file: no such file.", uriProps(uri));
    }
    if (readOnly)
        throw CFileSystemError(CFileSystemError::problemAccessDenied,
                               "Cannot delete the file: the file system is read-only.", uriProps(uri));
    files.erase(it);
}

void CMemoryFileSystem::renameFile(const CURI& from, const CURI& to)
{
    CMutexLock lock(mutex);
    auto it = files.find(key(from));
    if (it == files.end())
        throw CFileSystemError(CFileSystemError::problemNotFound, "Cannot rename the file: no such file.", uriProps(from));
    if (readOnly)
        throw CFileSystemError(CFileSystemError::problemAccessDenied,
                               "Cannot rename the file: the file system is read-only.", uriProps(from));
    P<CFile> file = it->second;
    files.erase(it);
    files[key(to)] = file;
}

P<IBase> CMemoryFileSystem::lockFile(const CURI& uri, IStreamBase::LockType type, bool wait, bool removeOnRelease)
{
    String fileKey = key(uri);
    for (;;) {
        {
            CMutexLock lock(mutex);
            P<CFile> file = findFile(fileKey, false);
            // An exclusive lock needs the file open for writing, which a
            // read-only medium refuses, as it refuses to create the file.
            if (readOnly && (!file || type == IStreamBase::lockExclusive))
                throw CFileSystemError(CFileSystemError::problemAccessDenied,
                                       "Cannot open the lock file: the file system is read-only.", uriProps(uri));
            if (!file) file = findFile(fileKey, true);
            if (file->canLock(nullptr, 0, 0, type)) {
                P<CLock> handle = newObj<CLock>(this, file, fileKey, removeOnRelease);
                file->tryLock(handle.get(), 0, 0, type);
                return handle;
            }
        }
        if (!wait) throw CLockFileError("The lock file is held by another process.", uriProps(uri));
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

P<TBuffer<unsigned char>> CMemoryFileSystem::getFileData(const CURI& uri)
{
    CMutexLock lock(mutex);
    P<CFile> file = findFile(key(uri), false);
    return file ? file->data : nullptr;
}

void CMemoryFileSystem::setReadOnly(bool value)
{
    CMutexLock lock(mutex);
    readOnly = value;
}

} // namespace zu
