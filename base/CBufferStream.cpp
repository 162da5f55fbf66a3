#include "base/CBufferStream.h"

#include "base/CIOError.h"

#include <algorithm>
#include <climits>
#include <cstring>

namespace zu {

namespace {

// No real file reaches 2^62 bytes; refusing positions beyond keeps position
// plus transfer size from overflowing.
constexpr long long maxPosition = 1LL << 62;

} // namespace

CBufferStream::CBufferStream(TBuffer<unsigned char>* buffer, double growth, const CURI& uri)
    : buffer(buffer), uri(uri)
{
    if (!buffer) throw CInvalidArgError("CBufferStream constructor", "The buffer is null");
    buffer->setMinGrowFactor(growth);
}

void CBufferStream::checkOpen() const
{
    if (closed) throw CIOError(CIOError::codeClosed, String(), CProps().set("uri", uri.toString(true)));
}

void CBufferStream::read(void* data, int bytes)
{
    checkOpen();
    long long available = std::max(0LL, buffer->getUsed() - position);
    if (bytes > available)
        throw CIOError(CIOError::codeEndOfData, String(),
                       CProps().set("uri", uri.toString(true)).set("position", position).set("bytesToRead", bytes).set("length", buffer->getUsed()));
    readLax(data, bytes);
}

int CBufferStream::readLax(void* data, int bytes)
{
    checkOpen();
    if (bytes < 0) throw CInvalidArgError("CBufferStream::readLax", "Negative byte count");
    long long count = std::min<long long>(bytes, std::max(0LL, buffer->getUsed() - position));
    if (count > 0) std::memcpy(data, buffer->getData() + position, static_cast<std::size_t>(count));
    position += count;
    return static_cast<int>(count);
}

int CBufferStream::readAvailable(void* data, int bytes) { return readLax(data, bytes); }

bool CBufferStream::waitReadable(int) const
{
    checkOpen();
    return true;
}

bool CBufferStream::isEndOfStream() const
{
    checkOpen();
    return position >= buffer->getUsed();
}

bool CBufferStream::isEndOfStream_NonBlocking() const { return isEndOfStream(); }

void CBufferStream::write(const void* data, int bytes, IWriteBarrier*)
{
    checkOpen();
    if (bytes < 0) throw CInvalidArgError("CBufferStream::write", "Negative byte count");
    if (bytes == 0) return;
    long long end = position + bytes;
    if (end > buffer->getUsed()) setLength(end);
    std::memmove(buffer->getData() + position, data, static_cast<std::size_t>(bytes));
    position = end;
}

void CBufferStream::writeKeepBuffer(const TConstBufferSlice<unsigned char>& data, IWriteBarrier* barrier)
{
    const unsigned char* p = data.getData();
    for (long long left = data.getLength(); left > 0;) {
        int chunk = static_cast<int>(std::min<long long>(left, INT_MAX));
        write(p, chunk, barrier);
        p += chunk;
        left -= chunk;
    }
}

P<IWriteBarrier> CBufferStream::createWriteBarrier(IWriteBarrier* chained)
{
    checkOpen();
    return newObj<CDummyWriteBarrier>(chained);
}

void CBufferStream::flush() { checkOpen(); }

void CBufferStream::setLength(long long length)
{
    checkOpen();
    if (length < 0) throw CInvalidArgError("CBufferStream::setLength", "Negative length", CProps().set("length", length));
    long long old = buffer->getUsed();
    buffer->setUsed(length);
    // Growing a file shows zeros, not whatever the allocation held.
    if (length > old) std::memset(buffer->getData() + old, 0, static_cast<std::size_t>(length - old));
}

long long CBufferStream::getLength() const
{
    checkOpen();
    return buffer->getUsed();
}

long long CBufferStream::getPosition() const
{
    checkOpen();
    return position;
}

CURI CBufferStream::getURI() const { return uri; }

void CBufferStream::seek(long long newPosition)
{
    checkOpen();
    if (newPosition < 0 || newPosition > maxPosition)
        throw CInvalidArgError("CBufferStream::seek", "Position out of range", CProps().set("position", newPosition));
    position = newPosition;
}

void CBufferStream::lockRange(long long, long long, LockType)
{
    checkOpen();
    throw CFileSystemError(CFileSystemError::problemNotSupported, "Buffer stream does not support range locking.",
                           CProps().set("uri", uri.toString(true)));
}

void CBufferStream::close() { closed = true; }

} // namespace zu
