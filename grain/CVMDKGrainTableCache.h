// The loaded grain tables of a disk (and of every extent and parent that
// shares the cache), in a bounded most-recently-used cache, so that memory
// stays bounded however large the disk is. The limit counts tables.
//
// Evicting a table drops the cache's reference. Tables with unflushed
// changes are never evicted: they are written only by their extent's flush,
// in its crash-safe order, so the cache may hold more than its limit until
// the extent flushes (it does so when it sees the cache over its limit).
// Switching automatic limiting off lets the cache grow until it is switched
// on again.
#pragma once

#include "base/TMostRecentlyUsedCache.h"
#include "grain/CVMDKGrainTable.h"

#include <cstdint>
#include <functional>

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
    // More tables are held than the limit allows, because tables with
    // unflushed changes may not go (only while automatic limiting is on).
    bool isOverLimit() const { return cache->getAutoEnforceLimit() && cache->isOverLimit(); }
    bool hasChangedTablesFromDirectory(CVMDKGrainDirectory* directory) const;
    // Drops the directory's tables without writing them (callers flush first).
    void removeCachedTablesFromDirectory(CVMDKGrainDirectory* directory);
    // Writes the directory's dirty slot-size tables, then, once `barrier`
    // has made them durable, its dirty grain tables, each pass in ascending
    // table order; the first error stops and propagates. Returns whether
    // any grain table was written (the caller's barrier comes next).
    bool flushCachedTablesFromDirectoryToStream(CVMDKGrainDirectory* directory,
                                                const std::function<void()>& barrier);
    void clear() { cache->clear(); }

private:
    zu::P<zu::TMostRecentlyUsedCache<CKey, CVMDKGrainTable>> cache;
};

} // namespace kord
