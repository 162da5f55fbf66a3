// The bounded cache behind shared grain tables: which entry goes first, and
// that eviction only drops the cache's own reference.
#include "base/TMostRecentlyUsedCache.h"

#include "common/TestUtil.h"

#include <string>

namespace {

class Item : public zu::CBase {
public:
    Item(std::string name, int* destroyed) : name(std::move(name)), destroyed(destroyed) {}
    ~Item() override { ++*destroyed; }
    std::string name;

private:
    int* destroyed;
};

using Cache = zu::TMostRecentlyUsedCache<int, Item>;

std::string keysOf(const Cache& cache)
{
    std::string keys;
    cache.forEach([&](int key, Item*) { keys += std::to_string(key); });
    return keys;
}

} // namespace

TEST(MRUCache, leastRecentlyUsedGoesFirst)
{
    int destroyed = 0;
    enum { A = 1, B = 2, C = 3 };
    Cache cache(2);
    cache.set(A, zu::newObj<Item>("a", &destroyed));
    cache.set(B, zu::newObj<Item>("b", &destroyed));
    cache.set(C, zu::newObj<Item>("c", &destroyed));
    EXPECT_EQ(keysOf(cache), "23");
    EXPECT_EQ(destroyed, 1) << "the evicted entry was held only by the cache";

    Cache touched(2);
    touched.set(A, zu::newObj<Item>("a", &destroyed));
    touched.set(B, zu::newObj<Item>("b", &destroyed));
    ASSERT_NE(touched.get(A), nullptr); // A is now more recent than B
    touched.set(C, zu::newObj<Item>("c", &destroyed));
    EXPECT_EQ(keysOf(touched), "13");
    EXPECT_EQ(touched.get(B), nullptr);
    EXPECT_EQ(touched.get(A)->name, "a");

    std::string range;
    touched.forEachInRange(2, 4, [&](int key, Item* item) { range += std::to_string(key) + item->name; });
    EXPECT_EQ(range, "3c");
}

TEST(MRUCache, replacingNeverEvicts)
{
    int destroyed = 0;
    Cache cache(2);
    cache.set(1, zu::newObj<Item>("one", &destroyed));
    cache.set(2, zu::newObj<Item>("two", &destroyed));
    cache.set(1, zu::newObj<Item>("uno", &destroyed));
    EXPECT_EQ(cache.getCount(), 2);
    EXPECT_EQ(keysOf(cache), "12");
    EXPECT_EQ(cache.get(1)->name, "uno");
    EXPECT_EQ(destroyed, 1) << "only the replaced object went";
    // The replacement made 1 the most recent, so 2 is the next victim.
    cache.set(3, zu::newObj<Item>("three", &destroyed));
    EXPECT_EQ(keysOf(cache), "13");
    EXPECT_TRUE(cache.remove(1));
    EXPECT_FALSE(cache.remove(1));
    EXPECT_EQ(keysOf(cache), "3");
}

TEST(MRUCache, automaticLimitOffThenOnAndEvictedSink)
{
    int destroyed = 0;
    Cache cache(2);
    zu::P<Cache::EvictedList> evicted = zu::newObj<Cache::EvictedList>();
    cache.setEvictedSink(evicted.get());
    cache.setAutoEnforceLimit(false);
    for (int key = 1; key <= 5; ++key) cache.set(key, zu::newObj<Item>(std::to_string(key), &destroyed));
    EXPECT_EQ(cache.getCount(), 5) << "no eviction while the limit is off";
    cache.get(1);
    cache.setAutoEnforceLimit(true); // enforces at once
    EXPECT_EQ(keysOf(cache), "15");
    ASSERT_EQ(evicted->size(), 3u);
    std::string order;
    for (const auto& entry : *evicted) order += std::to_string(entry.first) + entry.second->name;
    EXPECT_EQ(order, "223344") << "oldest first, with their objects";
    EXPECT_EQ(destroyed, 0) << "the sink holds the evicted objects";
    evicted->clear();
    EXPECT_EQ(destroyed, 3);

    Cache none(-1); // a negative limit keeps nothing, and must not loop on an empty cache
    none.set(1, zu::newObj<Item>("x", &destroyed));
    EXPECT_EQ(none.getCount(), 0);
}

TEST(MRUCache, evictedObjectStillReferencedSurvives)
{
    int destroyed = 0;
    Cache cache(1);
    zu::P<Item> kept = zu::newObj<Item>("kept", &destroyed);
    cache.set(1, kept);
    cache.set(2, zu::newObj<Item>("other", &destroyed));
    EXPECT_EQ(cache.get(1), nullptr);
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(kept->name, "kept");
    EXPECT_EQ(kept->getRefCount(), 1u);
    cache.clear();
    EXPECT_EQ(destroyed, 1);
}
