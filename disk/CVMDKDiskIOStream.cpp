#include "disk/CVMDKDiskIOStream.h"

#include "base/CIOError.h"
#include "base/Log.h"

#include <algorithm>

namespace kord {

CVMDKDiskIOStream::CVMDKDiskIOStream(zu::IFileSystem* fileSystem, const zu::CURI& uri, int access,
                                     const zu::String& password)
{
    zu::P<CVMDKDisk> opened = zu::newObj<CVMDKDisk>(fileSystem, uri, access, password, -1, nullptr, nullptr);
    construct(opened);
}

CVMDKDiskIOStream::CVMDKDiskIOStream(CVMDKDisk* disk) { construct(disk); }

CVMDKDiskIOStream::~CVMDKDiskIOStream()
{
    try {
        close();
    } catch (const std::exception& e) {
        zu::onExceptionInDestructorIgnored("kord::CVMDKDiskIOStream", e);
    }
}

void CVMDKDiskIOStream::construct(CVMDKDisk* adopted)
{
    disk = adopted;
    uri = adopted->getMainURI();
}

CVMDKDisk* CVMDKDiskIOStream::openDisk() const
{
    if (!disk) throw zu::CIOError(zu::CIOError::codeClosed);
    return disk;
}

void CVMDKDiskIOStream::read(void* data, int bytes) { openDisk()->read(data, bytes); }

int CVMDKDiskIOStream::readLax(void* data, int bytes)
{
    CVMDKDisk* d = openDisk();
    int n = static_cast<int>(std::min<long long>(bytes, d->getDiskSizeBytes() - d->getPosition()));
    if (n > 0) d->read(data, n);
    return std::max(n, 0);
}

bool CVMDKDiskIOStream::waitReadable(int) const
{
    openDisk();
    return true;
}

bool CVMDKDiskIOStream::isEndOfStream() const
{
    CVMDKDisk* d = openDisk();
    return d->getPosition() >= d->getDiskSizeBytes();
}

void CVMDKDiskIOStream::write(const void* data, int bytes, zu::IWriteBarrier*) { openDisk()->write(data, bytes); }

void CVMDKDiskIOStream::writeKeepBuffer(const zu::TConstBufferSlice<unsigned char>& data, zu::IWriteBarrier*)
{
    openDisk()->write(data.getData(), static_cast<int>(data.getLength()));
}

zu::P<zu::IWriteBarrier> CVMDKDiskIOStream::createWriteBarrier(zu::IWriteBarrier* chained)
{
    openDisk();
    return zu::newObj<zu::CDummyWriteBarrier>(chained);
}

void CVMDKDiskIOStream::flush() { openDisk()->flushChanges(); }

void CVMDKDiskIOStream::setLength(long long)
{
    openDisk();
    throw zu::CIOError(zu::CIOError::codeResize);
}

long long CVMDKDiskIOStream::getLength() const { return openDisk()->getDiskSizeBytes(); }

long long CVMDKDiskIOStream::getPosition() const { return openDisk()->getPosition(); }

void CVMDKDiskIOStream::seek(long long position) { openDisk()->seek(position); }

void CVMDKDiskIOStream::lockRange(long long, long long, LockType)
{
    openDisk();
    throw zu::CFileSystemError(zu::CFileSystemError::problemNotSupported,
                               "VMDK Disk I/O stream does not support lockRange.");
}

void CVMDKDiskIOStream::close()
{
    // Released even when the flush fails; the flush's error is the caller's.
    zu::P<CVMDKDisk> closing = disk;
    disk = nullptr;
    if (closing) closing->flushChanges();
}

} // namespace kord
