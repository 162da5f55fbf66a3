#include "base/COptimizingIOStream.h"

#include "base/CIOError.h"
#include "base/Log.h"

#include <algorithm>
#include <cstring>

namespace zu {

namespace {

// No real file reaches 2^62 bytes; refusing positions beyond keeps position
// plus transfer size from overflowing.
constexpr long long maxPosition = 1LL << 62;

// The largest single transfer handed to an inner stream (its API takes int).
constexpr long long maxInnerTransfer = 1LL << 30;

void checkPositive(int value, const char* name)
{
    if (value < 1)
        throw CInvalidArgError("COptimizingIOStream constructor", String(name) + " must be positive",
                               CProps().set(name, value));
}

bool isPowerOfTwo(int value) { return value > 0 && (value & (value - 1)) == 0; }

CIOError closedError(const CURI& uri)
{
    return CIOError(CIOError::codeClosed, String(), CProps().set("uri", uri.toString(true)));
}

} // namespace

COptimizingIOStream::COptimizingIOStream(IIOStream* inner, int blockBytes, int writeBehindBytes, int directThreshold)
    : inner(inner), blockBytes(blockBytes), writeBehindBytes(writeBehindBytes), directThreshold(directThreshold)
{
    if (!inner) throw CInvalidArgError("COptimizingIOStream constructor", "The inner stream is null");
    checkPositive(blockBytes, "blockBytes");
    checkPositive(writeBehindBytes, "writeBehindBytes");
    checkPositive(directThreshold, "directThreshold");
    uri = inner->getURI();
    if (const auto* aligned = tryCast<IAlignedStreamBase>(static_cast<IBase*>(inner))) {
        positionAlign = aligned->getPositionAlign();
        bufferAlign = aligned->getBufferAlign();
        bestPositionAlign = aligned->getBestPerformancePositionAlign();
    }
    // Our own buffers meet the inner stream's buffer alignment, so that they
    // can be handed to it directly.
    if (isPowerOfTwo(bufferAlign)) {
        readBlock.setAllocAlignBytes(bufferAlign);
        writeBehind.setAllocAlignBytes(bufferAlign);
    }
    innerLength = inner->getLength();
    position = inner->getPosition();
}

COptimizingIOStream::~COptimizingIOStream()
{
    // With nothing pending there is nothing to report; the inner stream
    // closes itself when its last reference goes.
    if (closed || writeBehind.isEmpty()) return;
    try {
        flush();
    } catch (const std::exception& e) {
        onExceptionInDestructorIgnored("zu::COptimizingIOStream", e);
    }
}

void COptimizingIOStream::checkOpen() const
{
    if (closed) throw closedError(uri);
}

void COptimizingIOStream::throwEndOfData(int bytes) const
{
    throw CIOError(CIOError::codeEndOfData, String(),
                   CProps().set("uri", uri.toString(true)).set("position", position).set("bytesToRead", bytes));
}

// ---- reading

void COptimizingIOStream::read(void* data, int bytes)
{
    checkOpen();
    // Refuse a read past the end before moving, so that a failed read leaves
    // the position alone.
    if (bytes > 0 && bytes > getLength() - position) throwEndOfData(bytes);
    long long start = position;
    if (readLax(data, bytes) < bytes) {
        position = start;
        throwEndOfData(bytes);
    }
}

void COptimizingIOStream::readUnbuffered(void* data, int bytes)
{
    checkOpen();
    if (bytes < 0) throw CInvalidArgError("COptimizingIOStream::readUnbuffered", "Negative byte count");
    if (bytes > getLength() - position) throwEndOfData(bytes);
    long long start = position;
    if (readDirect(data, bytes) < bytes) {
        position = start;
        throwEndOfData(bytes);
    }
}

int COptimizingIOStream::readLax(void* data, int bytes)
{
    checkOpen();
    if (bytes < 0) throw CInvalidArgError("COptimizingIOStream::readLax", "Negative byte count");
    return bytes >= directThreshold ? readDirect(data, bytes) : readBuffered(data, bytes);
}

int COptimizingIOStream::readAvailable(void* data, int bytes) { return readLax(data, bytes); }

bool COptimizingIOStream::waitReadable(int) const
{
    checkOpen();
    return true;
}

bool COptimizingIOStream::isEndOfStream() const { return getPosition() >= getLength(); }
bool COptimizingIOStream::isEndOfStream_NonBlocking() const { return isEndOfStream(); }

bool COptimizingIOStream::writeBehindAffectsRead(long long start, long long bytes) const
{
    if (writeBehind.isEmpty() || writeBehindEnd() <= start) return false;
    return writeBehindStart < start + bytes || start + bytes > innerLength;
}

int COptimizingIOStream::readDirect(void* data, int bytes)
{
    if (writeBehindAffectsRead(position, bytes)) flushWriteBehind();
    // The read block needs no care: small writes keep it current and large
    // ones drop it.
    long long got = readInner(position, data, std::min<long long>(bytes, std::max(0LL, innerLength - position)));
    ++stats.directReads;
    position += got;
    return static_cast<int>(got);
}

int COptimizingIOStream::readBuffered(void* data, int bytes)
{
    auto* out = static_cast<unsigned char*>(data);
    int done = 0;
    while (done < bytes) {
        long long blockEnd = readBlockStart + readBlock.getUsed();
        if (readBlockStart < 0 || position < readBlockStart || position >= blockEnd) {
            if (!fillReadBlock()) break;
            continue;
        }
        int count = static_cast<int>(std::min<long long>(bytes - done, blockEnd - position));
        std::memcpy(out + done, readBlock.getData() + (position - readBlockStart), static_cast<std::size_t>(count));
        done += count;
        position += count;
    }
    return done;
}

// One inner read of up to a block at the position; false at the end.
bool COptimizingIOStream::fillReadBlock()
{
    if (writeBehindAffectsRead(position, blockBytes)) flushWriteBehind();
    readBlockStart = -1;
    readBlock.clear();
    long long wanted = std::min<long long>(blockBytes, std::max(0LL, innerLength - position));
    if (wanted == 0) return false;
    readBlock.ensureAllocated(blockBytes);
    long long got = readInner(position, readBlock.getData(), wanted);
    if (got == 0) return false;
    readBlock.setUsed(got);
    readBlockStart = position;
    return true;
}

long long COptimizingIOStream::readInner(long long start, void* data, long long bytes)
{
    if (bytes == 0) return 0;
    if (inner->getPosition() != start) inner->seek(start);
    auto* out = static_cast<unsigned char*>(data);
    long long done = 0;
    while (done < bytes) {
        int chunk = static_cast<int>(std::min(bytes - done, maxInnerTransfer));
        int got = inner->readLax(out + done, chunk);
        ++stats.innerReads;
        if (got <= 0) break;
        done += got;
    }
    return done;
}

void COptimizingIOStream::invalidateReadBlock(long long start, long long bytes)
{
    if (readBlockStart >= 0 && start < readBlockStart + readBlock.getUsed() && start + bytes > readBlockStart) {
        readBlockStart = -1;
        readBlock.clear();
    }
}

void COptimizingIOStream::patchReadBlock(long long start, const void* data, long long bytes)
{
    if (readBlockStart < 0) return;
    long long from = std::max(start, readBlockStart);
    long long to = std::min(start + bytes, readBlockStart + readBlock.getUsed());
    if (from < to)
        std::memcpy(readBlock.getData() + (from - readBlockStart), static_cast<const unsigned char*>(data) + (from - start),
                    static_cast<std::size_t>(to - from));
}

// ---- writing

void COptimizingIOStream::write(const void* data, int bytes, IWriteBarrier*)
{
    if (bytes < 0) throw CInvalidArgError("COptimizingIOStream::write", "Negative byte count");
    writeAt(data, bytes);
}

void COptimizingIOStream::writeKeepBuffer(const TConstBufferSlice<unsigned char>& data, IWriteBarrier*)
{
    writeAt(data.getData(), data.getLength());
}

void COptimizingIOStream::writeAt(const void* data, long long bytes)
{
    checkOpen();
    if (bytes == 0) return;
    if (bytes >= directThreshold)
        writeDirect(data, bytes);
    else
        writeBehindAppend(data, bytes);
    position += bytes;
}

void COptimizingIOStream::writeDirect(const void* data, long long bytes)
{
    // Pending small writes under this range must land first, or they would
    // overwrite it later.
    if (!writeBehind.isEmpty() && writeBehindStart < position + bytes && writeBehindEnd() > position)
        flushWriteBehind();
    invalidateReadBlock(position, bytes);
    writeInner(position, data, bytes);
    ++stats.directWrites;
}

void COptimizingIOStream::writeBehindAppend(const void* data, long long bytes)
{
    // The run takes writes that continue it or rewrite part of it, up to its size.
    if (!writeBehind.isEmpty() &&
        (position < writeBehindStart || position > writeBehindEnd() || position + bytes - writeBehindStart > writeBehindBytes))
        flushWriteBehind();
    if (writeBehind.isEmpty()) {
        writeBehind.ensureAllocated(writeBehindBytes);
        writeBehindStart = position;
    }
    long long offset = position - writeBehindStart;
    if (offset + bytes > writeBehind.getUsed()) writeBehind.setUsed(offset + bytes);
    std::memcpy(writeBehind.getData() + offset, data, static_cast<std::size_t>(bytes));
    patchReadBlock(position, data, bytes);
    if (writeBehind.getUsed() >= writeBehindBytes) flushWriteBehind();
}

void COptimizingIOStream::flushWriteBehind()
{
    if (writeBehind.isEmpty()) return;
    // On failure the run stays pending, so that a later flush can retry it.
    writeInner(writeBehindStart, writeBehind.getData(), writeBehind.getUsed());
    writeBehind.clear();
    writeBehindStart = -1;
}

void COptimizingIOStream::writeInner(long long start, const void* data, long long bytes)
{
    if (inner->getPosition() != start) inner->seek(start);
    const auto* in = static_cast<const unsigned char*>(data);
    for (long long done = 0; done < bytes;) {
        int chunk = static_cast<int>(std::min(bytes - done, maxInnerTransfer));
        inner->write(in + done, chunk);
        ++stats.innerWrites;
        done += chunk;
    }
    innerLength = std::max(innerLength, start + bytes);
}

P<IWriteBarrier> COptimizingIOStream::createWriteBarrier(IWriteBarrier* chained)
{
    checkOpen();
    return inner->createWriteBarrier(chained);
}

void COptimizingIOStream::flush()
{
    checkOpen();
    flushWriteBehind();
    inner->flush();
}

void COptimizingIOStream::sync()
{
    flush();
    if (auto* durable = tryCast<IDurableStream>(static_cast<IBase*>(inner))) durable->sync();
}

void COptimizingIOStream::startSync()
{
    flush();
    if (auto* durable = tryCast<IDurableStream>(static_cast<IBase*>(inner))) durable->startSync();
}

void COptimizingIOStream::setLength(long long length)
{
    checkOpen();
    if (length < 0)
        throw CInvalidArgError("COptimizingIOStream::setLength", "Negative length", CProps().set("length", length));
    flushWriteBehind();
    inner->setLength(length);
    innerLength = length;
    if (readBlockStart >= length)
        invalidateReadBlock(readBlockStart, readBlock.getUsed());
    else if (readBlockStart >= 0 && readBlockStart + readBlock.getUsed() > length)
        readBlock.setUsed(length - readBlockStart);
}

// ---- position and the rest

long long COptimizingIOStream::getLength() const
{
    checkOpen();
    return writeBehind.isEmpty() ? innerLength : std::max(innerLength, writeBehindEnd());
}

long long COptimizingIOStream::getPosition() const
{
    checkOpen();
    return position;
}

CURI COptimizingIOStream::getURI() const { return uri; }

void COptimizingIOStream::seek(long long newPosition)
{
    checkOpen();
    if (newPosition < 0 || newPosition > maxPosition)
        throw CInvalidArgError("COptimizingIOStream::seek", "Position out of range", CProps().set("position", newPosition));
    position = newPosition;
}

void COptimizingIOStream::lockRange(long long start, long long length, LockType type)
{
    checkOpen();
    inner->lockRange(start, length, type);
}

void COptimizingIOStream::close()
{
    if (closed) return;
    closed = true;
    try {
        flushWriteBehind();
    } catch (const std::exception&) {
        try {
            inner->close();
        } catch (const std::exception& e) {
            logWarning(e, "Error closing a stream whose last writes failed", "COptimizingIOStream::close");
        }
        throw;
    }
    readBlock.freeMemory();
    writeBehind.freeMemory();
    inner->close();
}

// ---- COptimizingInStream

COptimizingInStream::COptimizingInStream(IInStream* inner, int blockBytes) : inner(inner), blockBytes(blockBytes)
{
    if (!inner) throw CInvalidArgError("COptimizingInStream constructor", "The inner stream is null");
    if (blockBytes < 1)
        throw CInvalidArgError("COptimizingInStream constructor", "blockBytes must be positive",
                               CProps().set("blockBytes", blockBytes));
    uri = inner->getURI();
    position = inner->getPosition();
}

void COptimizingInStream::checkOpen() const
{
    if (closed) throw closedError(uri);
}

void COptimizingInStream::read(void* data, int bytes)
{
    long long start = position;
    if (readLax(data, bytes) < bytes) {
        position = start;
        throw CIOError(CIOError::codeEndOfData, String(),
                       CProps().set("uri", uri.toString(true)).set("position", start).set("bytesToRead", bytes));
    }
}

int COptimizingInStream::readLax(void* data, int bytes)
{
    checkOpen();
    if (bytes < 0) throw CInvalidArgError("COptimizingInStream::readLax", "Negative byte count");
    auto* out = static_cast<unsigned char*>(data);
    if (bytes >= COptimizingIOStream::defaultDirectThreshold) {
        long long got = readInner(position, out, bytes);
        position += got;
        return static_cast<int>(got);
    }
    int done = 0;
    while (done < bytes) {
        long long blockEnd = blockStart + block.getUsed();
        if (blockStart < 0 || position < blockStart || position >= blockEnd) {
            // One inner read per block; a short one is kept as it is.
            blockStart = -1;
            block.ensureAllocated(blockBytes);
            if (inner->getPosition() != position) inner->seek(position);
            int got = inner->readLax(block.getData(), blockBytes);
            if (got <= 0) break;
            block.setUsed(got);
            blockStart = position;
            continue;
        }
        int count = static_cast<int>(std::min<long long>(bytes - done, blockEnd - position));
        std::memcpy(out + done, block.getData() + (position - blockStart), static_cast<std::size_t>(count));
        done += count;
        position += count;
    }
    return done;
}

long long COptimizingInStream::readInner(long long start, void* data, long long bytes)
{
    if (inner->getPosition() != start) inner->seek(start);
    auto* out = static_cast<unsigned char*>(data);
    long long done = 0;
    while (done < bytes) {
        int got = inner->readLax(out + done, static_cast<int>(bytes - done));
        if (got <= 0) break;
        done += got;
    }
    return done;
}

int COptimizingInStream::readAvailable(void* data, int bytes) { return readLax(data, bytes); }

bool COptimizingInStream::waitReadable(int timeoutMs) const
{
    checkOpen();
    bool buffered = blockStart >= 0 && position >= blockStart && position < blockStart + block.getUsed();
    return buffered || inner->waitReadable(timeoutMs);
}

bool COptimizingInStream::isEndOfStream() const { return getPosition() >= getLength(); }
bool COptimizingInStream::isEndOfStream_NonBlocking() const { return isEndOfStream(); }

long long COptimizingInStream::getLength() const
{
    checkOpen();
    return inner->getLength();
}

long long COptimizingInStream::getPosition() const
{
    checkOpen();
    return position;
}

CURI COptimizingInStream::getURI() const { return uri; }

void COptimizingInStream::seek(long long newPosition)
{
    checkOpen();
    if (newPosition < 0 || newPosition > maxPosition)
        throw CInvalidArgError("COptimizingInStream::seek", "Position out of range", CProps().set("position", newPosition));
    position = newPosition;
}

void COptimizingInStream::lockRange(long long start, long long length, LockType type)
{
    checkOpen();
    inner->lockRange(start, length, type);
}

void COptimizingInStream::close()
{
    if (closed) return;
    closed = true;
    block.freeMemory();
    inner->close();
}

} // namespace zu
