#include "base/CDataInStream.h"

#include "base/Endian.h"

namespace zu {

CDataInStream::CDataInStream(IInStream* stream) : stream(stream)
{
    if (!stream) throw CInvalidArgError("CDataInStream constructor", "The stream is null");
}

std::uint8_t CDataInStream::readUInt8()
{
    unsigned char byte;
    stream->read(&byte, 1);
    return byte;
}

std::uint16_t CDataInStream::readUInt16()
{
    unsigned char bytes[2];
    stream->read(bytes, 2);
    return loadLE16(bytes);
}

std::uint32_t CDataInStream::readUInt32()
{
    unsigned char bytes[4];
    stream->read(bytes, 4);
    return loadLE32(bytes);
}

std::uint64_t CDataInStream::readUInt64()
{
    unsigned char bytes[8];
    stream->read(bytes, 8);
    return loadLE64(bytes);
}

void CDataInStream::read(void* data, int bytes) { stream->read(data, bytes); }
int CDataInStream::readLax(void* data, int bytes) { return stream->readLax(data, bytes); }
int CDataInStream::readAvailable(void* data, int bytes) { return stream->readAvailable(data, bytes); }
bool CDataInStream::waitReadable(int timeoutMs) const { return stream->waitReadable(timeoutMs); }
bool CDataInStream::isEndOfStream() const { return stream->isEndOfStream(); }
bool CDataInStream::isEndOfStream_NonBlocking() const { return stream->isEndOfStream_NonBlocking(); }
long long CDataInStream::getLength() const { return stream->getLength(); }
long long CDataInStream::getPosition() const { return stream->getPosition(); }
CURI CDataInStream::getURI() const { return stream->getURI(); }
void CDataInStream::seek(long long position) { stream->seek(position); }
void CDataInStream::lockRange(long long start, long long length, LockType type) { stream->lockRange(start, length, type); }
void CDataInStream::close() { stream->close(); }

} // namespace zu
