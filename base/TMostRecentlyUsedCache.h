// A bounded map that forgets its least recently used entries.
//
// Entries are shared objects (P<T>); eviction only drops the cache's
// reference, so an object still held elsewhere lives on. An optional filter
// keeps entries that must not go yet (the cache may then stay over its
// limit until they may). Lookups are
// logarithmic (ordered map), recency updates and evictions constant time
// (list relinking, no allocation on a hit).
#pragma once

#include "base/CBase.h"
#include "base/TContainers.h"

#include <functional>
#include <list>
#include <map>
#include <utility>

namespace zu {

template <class K, class T>
class TMostRecentlyUsedCache : public CBase {
public:
    using EvictedList = TList<std::pair<K, P<T>>>;
    using EvictionFilter = std::function<bool(const T&)>;

    explicit TMostRecentlyUsedCache(int limit) : limit(limit) {}

    // The object under key, or null; a hit becomes the most recently used.
    P<T> get(const K& key)
    {
        auto it = entries.find(key);
        if (it == entries.end()) return nullptr;
        if (it->second.node != recency.begin()) recency.splice(recency.begin(), recency, it->second.node);
        return it->second.object;
    }

    // Inserts or replaces; the key becomes the most recently used. Only a
    // new key can make the cache evict (when automatic limiting is on).
    void set(const K& key, T* object)
    {
        auto it = entries.find(key);
        if (it != entries.end()) {
            it->second.object = object;
            if (it->second.node != recency.begin()) recency.splice(recency.begin(), recency, it->second.node);
            return;
        }
        recency.push_front(key);
        Entry entry;
        entry.object = object;
        entry.node = recency.begin();
        entries.emplace(key, std::move(entry));
        if (autoEnforceLimit) enforceLimit();
    }

    bool remove(const K& key)
    {
        auto it = entries.find(key);
        if (it == entries.end()) return false;
        recency.erase(it->second.node);
        entries.erase(it);
        return true;
    }

    int getCount() const { return static_cast<int>(entries.size()); }
    int getLimit() const { return limit; }

    void setAutoEnforceLimit(bool enabled)
    {
        if (enabled == autoEnforceLimit) return;
        autoEnforceLimit = enabled;
        if (enabled) enforceLimit();
    }
    bool getAutoEnforceLimit() const { return autoEnforceLimit; }

    // Evicts the least recently used entries that the filter lets go until
    // at most `limit` remain.
    void enforceLimit()
    {
        auto node = recency.end();
        while (node != recency.begin() && static_cast<long long>(entries.size()) > limit) {
            --node;
            auto it = entries.find(*node);
            if (evictionFilter && !evictionFilter(*it->second.object)) continue;
            K victim = *node;
            P<T> object = std::move(it->second.object);
            entries.erase(it);
            node = recency.erase(node);
            if (evictedSink) evictedSink->emplace_back(victim, std::move(object));
            // Otherwise `object` goes out of scope here: the cache's reference is dropped.
        }
    }
    bool isOverLimit() const { return static_cast<long long>(entries.size()) > limit; }

    void clear()
    {
        entries.clear();
        recency.clear();
    }

    // Receives evicted entries instead of their being dropped (null: none).
    void setEvictedSink(EvictedList* sink) { evictedSink = sink; }
    // Entries for which the filter says false are never evicted (empty: all may be).
    void setEvictionFilter(EvictionFilter filter) { evictionFilter = std::move(filter); }

    // Visits entries in key order (for flushing); the visitor must not
    // change the cache.
    template <class F>
    void forEach(F&& visit) const
    {
        for (const auto& kv : entries) visit(kv.first, kv.second.object.get());
    }
    // The keys in [from, to) in key order.
    template <class F>
    void forEachInRange(const K& from, const K& to, F&& visit) const
    {
        for (auto it = entries.lower_bound(from); it != entries.end() && it->first < to; ++it)
            visit(it->first, it->second.object.get());
    }

private:
    struct Entry {
        P<T> object;
        typename std::list<K>::iterator node;
    };

    int limit;
    std::map<K, Entry> entries;
    std::list<K> recency;
    bool autoEnforceLimit = true;
    P<EvictedList> evictedSink;
    EvictionFilter evictionFilter;
};

} // namespace zu
