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
}

zu::P<CVMDKGrainTable> CVMDKGrainTableCache::getCachedTable(CVMDKGrainDirectory* directory, long long tableIndex)
{
    return cache->get(CKey{directory, tableIndex});
}

void CVMDKGrainTableCache::setCachedTable(CVMDKGrainDirectory* directory, long long tableIndex, CVMDKGrainTable* table)
{
    cache->set(CKey{directory, tableIndex}, table);
}

void CVMDKGrainTableCache::removeCachedTablesFromDirectory(CVMDKGrainDirectory* directory)
{
    zu::TList<CKey> keys;
    cache->forEachInRange(firstKey(directory), lastKey(directory),
                          [&keys](const CKey& key, CVMDKGrainTable*) { keys.push_back(key); });
    for (const CKey& key : keys) cache->remove(key);
}

void CVMDKGrainTableCache::flushCachedTablesFromDirectoryToStream(CVMDKGrainDirectory* directory)
{
    cache->forEachInRange(firstKey(directory), lastKey(directory),
                          [](const CKey&, CVMDKGrainTable* table) { table->flushChangesToStream(); });
}

} // namespace kord
