// The in-memory stream that headers and descriptors are encoded into. (The
// little-endian data adapters over it are checked by the header byte layouts.)
#include "common/TestUtil.h"

#include "base/CBufferStream.h"

using namespace zu;
using kordtest::expectThrows;

TEST(BufferStreamTest, growsWithZeroGapsAndRefusesLocks)
{
    auto buffer = newObj<TBuffer<unsigned char>>();
    auto s = newObj<CBufferStream>(buffer, 3.0, CURI("mem:image"));
    s->seek(4);
    s->write("ab", 2);
    s->setLength(8);
    EXPECT_EQ(std::vector<unsigned char>(buffer->getData(), buffer->getData() + buffer->getUsed()),
              (std::vector<unsigned char>{0, 0, 0, 0, 'a', 'b', 0, 0}));
    auto e = expectThrows<CFileSystemError>([&] { s->lockRange(0, 1, IStreamBase::lockShared); });
    EXPECT_EQ(kordtest::msg(e), "Buffer stream does not support range locking.");
    EXPECT_EQ(e.getProblem(), CFileSystemError::problemNotSupported);
    s->seek(7);
    EXPECT_EQ(expectThrows<CIOError>([&] { s->read(buffer->getData(), 2); }).getCode(), CIOError::codeEndOfData);
    s->close();
    EXPECT_EQ(expectThrows<CIOError>([&] { s->write("x", 1); }).getCode(), CIOError::codeClosed);
}
