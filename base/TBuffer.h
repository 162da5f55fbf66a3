// Owning, growable arrays of plain elements (bytes, 16- and 32-bit table
// entries) and read-only views of them.
//
// A buffer separates what is allocated (capacity) from what is in use
// (used count); data beyond the used count is uninitialised. Growth is
// geometric: whenever more room is needed the new capacity is the larger of
// the size needed and the old capacity times the growth factor, so that
// appending in a loop is amortised linear.
#pragma once

#include "base/CBase.h"
#include "base/CError.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>

namespace zu {

template <class T>
class TBuffer : public CBase {
    static_assert(std::is_trivially_copyable<T>::value, "TBuffer holds plain data only");

public:
    static constexpr double defaultGrowFactor = 1.5;

    TBuffer() = default;
    explicit TBuffer(long long count, int allocAlignBytes = 1) : alignBytes(checkedAlign(allocAlignBytes))
    {
        alloc(count);
        used = count;
    }
    TBuffer(const T* source, long long count) { assign(source, count); }
    TBuffer(const TBuffer& other) : CBase(), alignBytes(other.alignBytes), growFactor(other.growFactor)
    {
        assign(other.getData(), other.used);
    }
    TBuffer& operator=(const TBuffer& other)
    {
        if (this != &other) assign(other.getData(), other.used);
        return *this;
    }
    ~TBuffer() override { freeAllocation(); }

    // Reallocates to exactly `count` elements of capacity, keeping the first
    // min(used, count) elements.
    void alloc(long long count)
    {
        checkCount(count);
        std::size_t bytes = static_cast<std::size_t>(count) * sizeof(T);
        unsigned char* raw = nullptr;
        T* aligned = nullptr;
        if (count > 0) {
            raw = static_cast<unsigned char*>(std::malloc(bytes + static_cast<std::size_t>(alignBytes) - 1));
            if (!raw) throw std::bad_alloc();
            std::uintptr_t addr = reinterpret_cast<std::uintptr_t>(raw);
            std::uintptr_t mask = static_cast<std::uintptr_t>(alignBytes) - 1;
            aligned = reinterpret_cast<T*>((addr + mask) & ~mask);
        }
        long long keep = std::min(used, count);
        if (keep > 0) std::memcpy(aligned, data, static_cast<std::size_t>(keep) * sizeof(T));
        freeAllocation();
        allocation = raw;
        allocationBytes = count > 0 ? bytes + static_cast<std::size_t>(alignBytes) - 1 : 0;
        data = aligned;
        capacity = count;
        used = keep;
        owned = true;
    }

    void ensureAllocated(long long count)
    {
        if (count <= capacity) return;
        checkCount(count);
        // Computed in double and capped, so that a large factor cannot
        // overflow or ask for more than any buffer may hold.
        double grown = std::min(static_cast<double>(capacity) * growFactor, static_cast<double>(maxBytes / sizeof(T)));
        alloc(std::max(count, static_cast<long long>(grown)));
    }
    void ensureFree(long long count) { ensureAllocated(used + count); }
    long long getFree() const { return capacity - used; }
    T* getFreePtr() { return data + used; }
    void addUsed(long long count) { setUsed(used + count); }
    // Grows the capacity when needed; new elements are not initialised.
    void setUsed(long long count)
    {
        checkCount(count);
        ensureAllocated(count);
        used = count;
    }
    // Sets the used count and fills the whole used range with `value`.
    void setUsedFill(long long count, T value)
    {
        setUsed(count);
        std::fill(data, data + used, value);
    }

    long long getUsed() const { return used; }
    long long getAllocated() const { return capacity; }
    T* getData() { return data; }
    const T* getData() const { return data; }
    bool isEmpty() const { return used == 0; }

    // Forgets the contents but keeps the allocation for reuse.
    void clear() { used = 0; }
    // Releases the allocation.
    void freeMemory()
    {
        freeAllocation();
        data = nullptr;
        capacity = 0;
        used = 0;
        owned = true;
    }

    void assign(const T* source, long long count)
    {
        used = 0;
        append(source, count);
    }
    void append(const T* source, long long count) { insert(used, source, count); }
    void insert(long long at, const T* source, long long count)
    {
        if (at < 0 || at > used || count < 0) throw CInvalidArgError("TBuffer::insert", "Invalid position or count");
        if (count == 0) return;
        // The source may lie inside this buffer, where growing frees it and
        // shifting the tail moves it: copy it out first.
        if (data && source + count > data && source < data + capacity) {
            TBuffer copy;
            copy.wipeOnFree = wipeOnFree;
            copy.assign(source, count);
            insert(at, copy.getData(), count);
            return;
        }
        ensureAllocated(used + count);
        std::memmove(data + at + count, data + at, static_cast<std::size_t>(used - at) * sizeof(T));
        std::memmove(data + at, source, static_cast<std::size_t>(count) * sizeof(T));
        used += count;
    }
    // Takes over the other buffer's memory and contents; the other is left empty.
    void move(TBuffer& other)
    {
        if (this == &other) return;
        freeAllocation();
        allocation = other.allocation;
        allocationBytes = other.allocationBytes;
        data = other.data;
        capacity = other.capacity;
        used = other.used;
        owned = other.owned;
        wipeOnFree = wipeOnFree || other.wipeOnFree;
        other.allocation = nullptr;
        other.allocationBytes = 0;
        other.data = nullptr;
        other.capacity = 0;
        other.used = 0;
        other.owned = true;
    }
    void eraseFromStart(long long count)
    {
        if (count < 0 || count > used) throw CInvalidArgError("TBuffer::eraseFromStart", "Invalid count");
        if (count == 0) return;
        std::memmove(data, data + count, static_cast<std::size_t>(used - count) * sizeof(T));
        used -= count;
    }

    bool equals(const TBuffer& other) const
    {
        return used == other.used && (used == 0 || std::memcmp(data, other.data, static_cast<std::size_t>(used) * sizeof(T)) == 0);
    }
    bool operator==(const TBuffer& other) const { return equals(other); }
    bool operator!=(const TBuffer& other) const { return !equals(other); }
    bool operator<(const TBuffer& other) const
    {
        return std::lexicographical_compare(data, data + used, other.data, other.data + other.used);
    }

    // Wraps foreign memory without owning it. The memory must outlive the
    // buffer's use of it; any growth beyond `count` copies into owned memory.
    void attachNoDelete(T* memory, long long count)
    {
        freeAllocation();
        data = memory;
        capacity = count;
        used = count;
        owned = false;
    }

    // Alignment in bytes of the first element for future allocations (a power of two).
    void setAllocAlignBytes(int bytes) { alignBytes = checkedAlign(bytes); }
    int getAllocAlignBytes() const { return alignBytes; }
    void setMinGrowFactor(double factor) { growFactor = factor < 1.0 ? 1.0 : factor; }
    double getMinGrowFactor() const { return growFactor; }

    T& operator[](long long index) { return data[index]; }
    const T& operator[](long long index) const { return data[index]; }

protected:
    // Key material buffers wipe every allocation they give up.
    bool wipeOnFree = false;
    // Sees every allocation just before it is freed (after any wipe); only
    // tests set it, to check that key material is gone without reading
    // freed memory.
    static inline void (*freeObserver)(const unsigned char* allocation, std::size_t bytes) = nullptr;

private:
    static int checkedAlign(int bytes)
    {
        if (bytes < 1 || (bytes & (bytes - 1)) != 0) throw CInvalidArgError("TBuffer", "Alignment must be a power of two");
        return bytes;
    }
    void checkCount(long long count) const
    {
        if (count < 0 || static_cast<unsigned long long>(count) > maxBytes / sizeof(T))
            throw CInvalidArgError("TBuffer::alloc", "Invalid element count: " + toString(count));
    }
    void freeAllocation()
    {
        if (allocation) {
            if (wipeOnFree) {
                volatile unsigned char* p = allocation;
                for (std::size_t i = 0; i < allocationBytes; ++i) p[i] = 0;
            }
            if (freeObserver) freeObserver(allocation, allocationBytes);
            std::free(allocation);
        }
        allocation = nullptr;
        allocationBytes = 0;
    }

    // No single buffer of the libraries needs more than this; a larger request
    // comes from a corrupt size and must fail before it reaches malloc.
    static constexpr unsigned long long maxBytes = 1ull << 40;

    unsigned char* allocation = nullptr;
    std::size_t allocationBytes = 0;
    T* data = nullptr;
    long long capacity = 0;
    long long used = 0;
    int alignBytes = 1;
    bool owned = true;
    double growFactor = defaultGrowFactor;
};

// A buffer for key material: every allocation it gives up (on growth, on
// freeMemory and on destruction) is overwritten with zeros first, over its
// whole allocated size.
template <class T>
class TCryptBuffer : public TBuffer<T> {
public:
    TCryptBuffer() { this->wipeOnFree = true; }
    explicit TCryptBuffer(long long count) : TBuffer<T>() { this->wipeOnFree = true; this->setUsed(count); }
    TCryptBuffer(const T* source, long long count) : TBuffer<T>() { this->wipeOnFree = true; this->assign(source, count); }
    TCryptBuffer(const TCryptBuffer& other) : TBuffer<T>() { this->wipeOnFree = true; this->assign(other.getData(), other.getUsed()); }
    TCryptBuffer& operator=(const TCryptBuffer& other)
    {
        if (this != &other) this->assign(other.getData(), other.getUsed());
        return *this;
    }
};

// A read-only view of a range of a buffer that keeps the buffer alive.
template <class T>
class TConstBufferSlice {
public:
    TConstBufferSlice() = default;
    // length -1 means up to the end of the buffer's used part.
    TConstBufferSlice(const TBuffer<T>* buffer, long long start = 0, long long length = -1)
    {
        if (!buffer) {
            if (start != 0 || length > 0)
                throw CInvalidArgError("TConstBufferSlice constructor", "Invalid start/length for NULL buffer",
                                       CProps().set("start", start).set("length", length));
            return;
        }
        if (length == -1 && start >= 0 && start <= buffer->getUsed()) length = buffer->getUsed() - start;
        if (start < 0 || length < 0 || start > buffer->getUsed() || length > buffer->getUsed() - start)
            throw CInvalidArgError("TConstBufferSlice constructor", "Invalid start/length",
                                   CProps().set("start", start).set("length", length).set("bufferSize", buffer->getUsed()));
        this->buffer = const_cast<TBuffer<T>*>(buffer);
        this->start = start;
        this->length = length;
    }

    const T* getData() const { return buffer ? buffer->getData() + start : nullptr; }
    long long getLength() const { return length; }
    long long getStart() const { return start; }
    const TBuffer<T>* getBuffer() const { return buffer.get(); }

private:
    P<TBuffer<T>> buffer;
    long long start = 0;
    long long length = 0;
};

} // namespace zu
