#include "CPyDisk.h"

#include <algorithm>

namespace kordpy {

namespace {

// The disk moves at most this much per call (its counts are int).
constexpr long long maxChunk = 1LL << 30;

} // namespace

CPyDisk::CPyDisk(kord::CVMDKDisk* disk)
    : stream(zu::newObj<kord::CVMDKDiskIOStream>(disk)), size(disk->getDiskSizeBytes()),
      writable(disk->getAccess() == zu::IIOStream::accessReadWrite)
{
}

// The stream refuses every call but close once it is closed.
void CPyDisk::checkOpen() const { stream->getLength(); }

long long CPyDisk::tell()
{
    std::lock_guard<std::mutex> lock(mutex);
    checkOpen();
    return position;
}

void CPyDisk::seek(long long to)
{
    std::lock_guard<std::mutex> lock(mutex);
    checkOpen();
    // The disk refuses a negative position with its own error; one past the
    // end is kept, as a file keeps it.
    if (to < 0) stream->seek(to);
    position = to;
}

long long CPyDisk::readInto(void* buffer, long long bytes)
{
    std::lock_guard<std::mutex> lock(mutex);
    checkOpen();
    const long long total = std::max(0LL, std::min(bytes, size - position));
    for (long long done = 0; done < total;) {
        const int n = static_cast<int>(std::min(total - done, maxChunk));
        stream->seek(position);
        stream->read(static_cast<unsigned char*>(buffer) + done, n);
        position += n;
        done += n;
    }
    return total;
}

void CPyDisk::write(const void* buffer, long long bytes)
{
    std::lock_guard<std::mutex> lock(mutex);
    checkOpen();
    for (long long done = 0; done < bytes;) {
        const int n = static_cast<int>(std::min(bytes - done, maxChunk));
        stream->seek(position);
        stream->write(static_cast<const unsigned char*>(buffer) + done, n);
        position += n;
        done += n;
    }
}

void CPyDisk::flush()
{
    std::lock_guard<std::mutex> lock(mutex);
    stream->flush();
}

void CPyDisk::close()
{
    std::lock_guard<std::mutex> lock(mutex);
    if (!stream->getDisk()) return;
    try {
        if (writable) stream->flush();
    } catch (...) {
        stream->close();
        throw;
    }
    stream->close();
}

bool CPyDisk::isClosed()
{
    std::lock_guard<std::mutex> lock(mutex);
    return !stream->getDisk();
}

} // namespace kordpy
