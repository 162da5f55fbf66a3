// The buffering layer under every extent file: large transfers must go
// straight through, small writes must be coalesced, and a read must always
// see the writes before it.
#include "common/TestUtil.h"

#include "base/CBufferStream.h"
#include "base/COptimizingIOStream.h"

#include <random>

using namespace zu;
using namespace kordtest;
using Bytes = std::vector<unsigned char>;

namespace {

struct Layered {
    P<TBuffer<unsigned char>> bytes = newObj<TBuffer<unsigned char>>();
    P<CBufferStream> inner = newObj<CBufferStream>(bytes);
    P<COptimizingIOStream> stream = newObj<COptimizingIOStream>(inner);
    const COptimizingIOStream::Stats& stats = stream->getStats();

    Bytes innerBytes() const { return Bytes(bytes->getData(), bytes->getData() + bytes->getUsed()); }
};

} // namespace

// What a read sees is checked against a model below; here what transfers
// cost: a large one goes straight through, small writes wait in one run
// until a flush, or until the run is full; and what close does.
TEST(OptimizingStreamTest, largeTransfersGoThroughSmallWritesWaitInOneRunAndCloseWritesThem)
{
    Layered l;
    auto grain = kordtest::pattern(64 * 1024, 1);
    l.stream->write(grain.data(), 64 * 1024);
    EXPECT_EQ(l.innerBytes(), grain) << "a large write waited in the write-behind run";
    l.stream->seek(0);
    l.stream->read(grain.data(), 64 * 1024);
    EXPECT_EQ(l.stats.directWrites + l.stats.directReads + l.stats.innerReads, 3);

    const long long writesBefore = l.stats.innerWrites;
    for (int i = 0; i < 2000; ++i) l.stream->write(grain.data() + i, 100);
    EXPECT_EQ(l.stream->getLength(), 265536) << "pending writes past the inner end are part of the length";
    EXPECT_EQ(l.stats.innerWrites, writesBefore);
    l.stream->flush();
    EXPECT_EQ(l.stats.innerWrites, writesBefore + 1);

    P<COptimizingIOStream> small = newObj<COptimizingIOStream>(l.inner, 4096, 4096, 1024);
    for (int i = 0; i < 8; ++i) small->write(grain.data(), 512);
    EXPECT_EQ(small->getStats().innerWrites, 1);

    // Closing writes the pending run, closes the inner stream, then refuses everything.
    l.stream->seek(0);
    l.stream->write("\1\2\3", 3);
    l.stream->close();
    EXPECT_EQ(Bytes(l.bytes->getData(), l.bytes->getData() + 3), (Bytes{1, 2, 3}));
    EXPECT_EQ(expectThrows<CIOError>([&] { l.inner->getLength(); }).getCode(), CIOError::codeClosed);
    char c;
    for (const std::function<void()>& op : std::vector<std::function<void()>>{
             [&] { l.stream->read(&c, 1); }, [&] { l.stream->write(&c, 1); }, [&] { l.stream->flush(); }})
        EXPECT_EQ(expectThrows<CIOError>(op).getCode(), CIOError::codeClosed);
    l.stream->close();
}

// Random reads, writes, seeks and resizes on a real file against a plain
// model, with sizes small enough to cross every buffer edge.
TEST(OptimizingStreamTest, randomMixMatchesModel)
{
    kordtest::TempDir dir;
    P<IFileSystem> fs = newObj<CLocalFileSystem>();
    CURI uri = CLocalFileSystem::pathToURI(dir.file("mix.bin"));
    Bytes model;
    std::mt19937 rng(42);
    {
        P<COptimizingIOStream> s =
            newObj<COptimizingIOStream>(fs->openStream(uri, IIOStream::accessCreateNew, CProps()), 4096, 16384, 8192);
        for (int op = 0; op < 5000; ++op) {
            long long pos = rng() % 70000;
            int size = rng() % 4 == 0 ? static_cast<int>(rng() % 20000) : static_cast<int>(rng() % 300);
            s->seek(pos);
            unsigned kind = rng() % 8;
            if (kind < 3) {
                auto data = kordtest::pattern(static_cast<std::size_t>(size), static_cast<unsigned>(op));
                s->write(data.data(), size);
                model.resize(std::max<std::size_t>(model.size(), static_cast<std::size_t>(pos) + data.size()));
                std::copy(data.begin(), data.end(), model.begin() + pos);
            } else if (kind == 7 && rng() % 4 == 0) {
                s->setLength(pos);
                model.resize(static_cast<std::size_t>(pos));
            } else if (kind == 7) {
                s->flush();
            } else {
                Bytes got(static_cast<std::size_t>(size));
                int n = s->readLax(got.data(), size);
                ASSERT_EQ(n, std::clamp<long long>(static_cast<long long>(model.size()) - pos, 0, size)) << "op " << op;
                ASSERT_TRUE(std::equal(got.begin(), got.begin() + n, model.begin() + pos)) << "op " << op;
            }
            ASSERT_EQ(s->getLength(), static_cast<long long>(model.size())) << "op " << op;
        }
        // Left open: the destructor writes what is pending.
    }
    EXPECT_EQ(kordtest::readAll(fs, uri), model);
}
