// The loaded grain tables of a disk (and of every extent and parent that
// shares the cache), in a bounded most-recently-used cache, so that memory
// stays bounded however large the disk is. The limit counts tables.
//
// Evicting a table drops the cache's reference; a dirty table writes itself
// back when its last reference goes. Switching automatic limiting off lets
// the cache grow (no table is evicted, hence none written) until it is
// switched on again or the tables are flushed.
#pragma once

#include "base/TMostRecentlyUsedCache.h"
#include "grain/CVMDKGrainTable.h"

#include <cstdint>

namespace kord {

class CVMDKGrainDirectory;

class CVMDKGrainTableCache : public zu::CBase {
public:
    struct CKey {
        CVMDKGrainDirectory* directory;
        long long tableIndex;
        // By directory (as an address), then by table index: the tables of
        // one directory are adjacent and in ascending order.
        bool operator<(const CKey& other) const
        {
            auto a = reinterpret_cast<std::uintptr_t>(directory);
            auto b = reinterpret_cast<std::uintptr_t>(other.directory);
            return a != b ? a < b : tableIndex < other.tableIndex;
        }
    };

    // The disk's own cache holds 1024 tables.
    static constexpr int defaultLimit = 1024;

    explicit CVMDKGrainTableCache(int limit);

    // Null when absent; a hit becomes the most recently used.
    zu::P<CVMDKGrainTable> getCachedTable(CVMDKGrainDirectory* directory, long long tableIndex);
    // Inserts or replaces; only a new key can trigger eviction.
    void setCachedTable(CVMDKGrainDirectory* directory, long long tableIndex, CVMDKGrainTable* table);
    int getCachedTableCount() const { return cache->getCount(); }
    void setAutoEnforceLimit(bool enabled) { cache->setAutoEnforceLimit(enabled); }
    void enforceLimit() { cache->enforceLimit(); }
    // Drops the directory's tables without writing them (callers flush first).
    void removeCachedTablesFromDirectory(CVMDKGrainDirectory* directory);
    // Writes the directory's dirty tables in ascending table order; the
    // first error stops and propagates.
    void flushCachedTablesFromDirectoryToStream(CVMDKGrainDirectory* directory);
    void clear() { cache->clear(); }

private:
    zu::P<zu::TMostRecentlyUsedCache<CKey, CVMDKGrainTable>> cache;
};

} // namespace kord
