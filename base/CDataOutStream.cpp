#include "base/CDataOutStream.h"

#include "base/Endian.h"

namespace zu {

CDataOutStream::CDataOutStream(IOutStream* stream) : stream(stream)
{
    if (!stream) throw CInvalidArgError("CDataOutStream constructor", "The stream is null");
}

void CDataOutStream::writeUInt8(std::uint8_t value)
{
    unsigned char byte = value;
    stream->write(&byte, 1);
}

void CDataOutStream::writeUInt16(std::uint16_t value)
{
    unsigned char bytes[2];
    storeLE16(bytes, value);
    stream->write(bytes, 2);
}

void CDataOutStream::writeUInt32(std::uint32_t value)
{
    unsigned char bytes[4];
    storeLE32(bytes, value);
    stream->write(bytes, 4);
}

void CDataOutStream::writeUInt64(std::uint64_t value)
{
    unsigned char bytes[8];
    storeLE64(bytes, value);
    stream->write(bytes, 8);
}

void CDataOutStream::write(const void* data, int bytes, IWriteBarrier* barrier) { stream->write(data, bytes, barrier); }
void CDataOutStream::writeKeepBuffer(const TConstBufferSlice<unsigned char>& data, IWriteBarrier* barrier)
{
    stream->writeKeepBuffer(data, barrier);
}
P<IWriteBarrier> CDataOutStream::createWriteBarrier(IWriteBarrier* chained) { return stream->createWriteBarrier(chained); }
void CDataOutStream::flush() { stream->flush(); }
void CDataOutStream::setLength(long long length) { stream->setLength(length); }
long long CDataOutStream::getLength() const { return stream->getLength(); }
long long CDataOutStream::getPosition() const { return stream->getPosition(); }
CURI CDataOutStream::getURI() const { return stream->getURI(); }
void CDataOutStream::seek(long long position) { stream->seek(position); }
void CDataOutStream::lockRange(long long start, long long length, LockType type) { stream->lockRange(start, length, type); }
void CDataOutStream::close() { stream->close(); }

} // namespace zu
