// The buffering layer under every extent file: a read must always see the
// writes before it. (That partial grain reads go straight through is counted
// with the extent files; what transfers cost, by the benchmarks.)
#include "common/TestUtil.h"

#include "base/COptimizingIOStream.h"

#include <random>

using namespace zu;
using namespace kordtest;
using Bytes = std::vector<unsigned char>;

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
                // Writing nothing past the end leaves the length as it is.
                if (size > 0) {
                    model.resize(std::max<std::size_t>(model.size(), static_cast<std::size_t>(pos) + data.size()));
                    std::copy(data.begin(), data.end(), model.begin() + pos);
                }
            } else if (kind == 7 && rng() % 4 == 0) {
                s->setLength(pos);
                model.resize(static_cast<std::size_t>(pos));
            } else if (kind == 7) {
                // Either hands what is pending to the file, where another
                // reader sees it.
                rng() % 2 ? s->flush() : s->startSync();
                ASSERT_EQ(kordtest::readAll(fs, uri), model) << "op " << op;
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
