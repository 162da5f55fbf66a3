// The bounded cache behind shared grain tables: the least recently used
// entries go first, into the evicted-entry sink; a removed entry is no
// victim, a known key is replaced without eviction, a limit switched back on
// applies at once, and a negative limit keeps nothing. (That tables with
// changes are never evicted is checked with the grain-table cache.)
#include "base/TMostRecentlyUsedCache.h"

#include "common/TestUtil.h"

#include <string>

namespace {

int destroyed = 0;

class Item : public zu::CBase {
public:
    explicit Item(std::string name) : name(std::move(name)) {}
    ~Item() override { ++destroyed; }
    std::string name;
};

using Cache = zu::TMostRecentlyUsedCache<int, Item>;

} // namespace

TEST(MRUCache, evictedSinkTakesOldestFirstAndRemovedKeysAreNotVictims)
{
    Cache cache(2);
    zu::P<Cache::EvictedList> evicted = zu::newObj<Cache::EvictedList>();
    cache.setEvictedSink(evicted.get());
    cache.setAutoEnforceLimit(false);
    for (int key = 1; key <= 5; ++key) cache.set(key, zu::newObj<Item>(std::to_string(key)));
    cache.get(1);
    EXPECT_TRUE(cache.remove(4));
    EXPECT_FALSE(cache.remove(4));
    cache.setAutoEnforceLimit(true); // enforces at once
    std::string order;
    for (const auto& entry : *evicted) order += std::to_string(entry.first) + entry.second->name;
    EXPECT_EQ(order, "2233") << "oldest first, with their objects";
    EXPECT_EQ(destroyed, 1) << "only the removed entry went; the sink holds the evicted ones";
    evicted->clear();
    EXPECT_EQ(destroyed, 3);
    EXPECT_EQ(cache.get(1)->name + cache.get(5)->name, "15");
    cache.set(1, zu::newObj<Item>("one")); // a known key is replaced and evicts nothing
    EXPECT_EQ(cache.getCount(), 2);
    EXPECT_EQ(cache.get(1)->name + cache.get(5)->name, "one5");

    Cache none(-1); // a negative limit keeps nothing, and must not loop on an empty cache
    none.set(1, zu::newObj<Item>("x"));
    EXPECT_EQ(none.getCount(), 0);
}
