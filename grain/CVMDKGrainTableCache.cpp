#include "grain/CVMDKGrainTableCache.h"

#include "base/TContainers.h"

#include <climits>

namespace kord {

namespace {

CVMDKGrainTableCache::CKey firstKey(CVMDKGrainDirectory* directory) { return {directory, LLONG_MIN}; }
CVMDKGrainTableCache::CKey lastKey(CVMDKGrainDirectory* directory) { return {directory, LLONG_MAX}; }

} // namespace

CVMDKGrainTableCache::CVMDKGrainTableCache(int limit)
    : cache(zu::newObj<zu::TMostRecentlyUsedCache<CKey, CVMDKGrainTable>>(limit))
{
    // A stale redundant copy alone is no reason to keep a table: it is found
    // again when the table is loaded again.
    cache->setEvictionFilter([](const CVMDKGrainTable& table) { return !table.hasChanges(); });
}

zu::P<CVMDKGrainTable> CVMDKGrainTableCache::getCachedTable(CVMDKGrainDirectory* directory, long long tableIndex)
{
    return cache->get(CKey{directory, tableIndex});
}

void CVMDKGrainTableCache::setCachedTable(CVMDKGrainDirectory* directory, long long tableIndex, CVMDKGrainTable* table)
{
    cache->set(CKey{directory, tableIndex}, table);
}

bool CVMDKGrainTableCache::hasChangedTablesFromDirectory(CVMDKGrainDirectory* directory) const
{
    bool changed = false;
    cache->forEachInRange(firstKey(directory), lastKey(directory),
                          [&changed](const CKey&, CVMDKGrainTable* table) { changed = changed || table->hasChanges(); });
    return changed;
}

void CVMDKGrainTableCache::removeCachedTablesFromDirectory(CVMDKGrainDirectory* directory)
{
    zu::TList<CKey> keys;
    cache->forEachInRange(firstKey(directory), lastKey(directory),
                          [&keys](const CKey& key, CVMDKGrainTable*) { keys.push_back(key); });
    for (const CKey& key : keys) cache->remove(key);
}

bool CVMDKGrainTableCache::flushCachedTablesFromDirectoryToStream(CVMDKGrainDirectory* directory,
                                                                  const std::function<void()>& barrier)
{
    bool slotSizes = false;
    bool entries = false;
    cache->forEachInRange(firstKey(directory), lastKey(directory), [&slotSizes](const CKey&, CVMDKGrainTable* table) {
        slotSizes = table->flushSlotSizesToStream() || slotSizes;
    });
    if (slotSizes) barrier();
    cache->forEachInRange(firstKey(directory), lastKey(directory), [&entries](const CKey&, CVMDKGrainTable* table) {
        entries = table->flushEntriesToStream() || entries;
    });
    return entries;
}

} // namespace kord
