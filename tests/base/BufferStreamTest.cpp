// The in-memory stream and the little-endian data adapters over it.
#include "common/TestUtil.h"

#include "base/CBufferStream.h"
#include "base/CDataInStream.h"
#include "base/CDataOutStream.h"

using namespace zu;
using kordtest::expectThrows;

TEST(BufferStreamTest, growsWithZeroGapsAndRefusesLocks)
{
    auto buffer = newObj<TBuffer<unsigned char>>();
    auto s = newObj<CBufferStream>(buffer, 3.0, CURI("mem:image"));
    EXPECT_EQ(buffer->getMinGrowFactor(), 3.0);
    s->seek(4);
    s->write("ab", 2);
    EXPECT_EQ(std::vector<unsigned char>(buffer->getData(), buffer->getData() + buffer->getUsed()),
              (std::vector<unsigned char>{0, 0, 0, 0, 'a', 'b'}));
    s->setLength(8);
    EXPECT_EQ(buffer->getData()[7], 0);

    auto e = expectThrows<CFileSystemError>([&] { s->lockRange(0, 1, IStreamBase::lockShared); });
    EXPECT_EQ(kordtest::msg(e), "Buffer stream does not support range locking.");
    EXPECT_EQ(e.getProblem(), CFileSystemError::problemNotSupported);

    s->close();
    EXPECT_EQ(expectThrows<CIOError>([&] { s->write("x", 1); }).getCode(), CIOError::codeClosed);
}

TEST(BufferStreamTest, dataStreamsAreLittleEndian)
{
    auto buffer = newObj<TBuffer<unsigned char>>();
    auto s = newObj<CBufferStream>(buffer);
    auto out = newObj<CDataOutStream>(s);
    out->writeUInt8(0x01);
    out->writeUInt16(0x0302);
    out->writeUInt32(0x07060504);
    out->writeUInt64(0x0f0e0d0c0b0a0908ULL);
    out->writeInt32(-2);
    std::vector<unsigned char> expected{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 0xfe, 0xff, 0xff, 0xff};
    EXPECT_EQ(std::vector<unsigned char>(buffer->getData(), buffer->getData() + buffer->getUsed()), expected);

    auto in = newObj<CDataInStream>(s);
    in->seek(0);
    EXPECT_EQ(in->readUInt8(), 0x01);
    EXPECT_EQ(in->readUInt16(), 0x0302);
    EXPECT_EQ(in->readUInt32(), 0x07060504u);
    EXPECT_EQ(in->readUInt64(), 0x0f0e0d0c0b0a0908ULL);
    EXPECT_EQ(in->readInt32(), -2);
    auto e = expectThrows<CIOError>([&] { in->readUInt16(); });
    EXPECT_EQ(e.getCode(), CIOError::codeEndOfData);
}
