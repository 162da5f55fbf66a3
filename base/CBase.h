// Reference-counted objects and the owning smart pointer.
//
// Every long-lived object of the libraries is a zu::CBase held through
// zu::P<T>. Interfaces derive virtually from zu::IBase so that an object
// implementing several of them still has exactly one reference count.
#pragma once

#include <atomic>
#include <cstdint>
#include <typeinfo>
#include <utility>

namespace zu {

class IBase {
public:
    virtual ~IBase() = default;
    virtual void addRef() = 0;
    virtual void release() = 0;
    // Hook for checked downcasts (tryCast); objects allow every cast by default.
    virtual bool checkCastAllowed(const std::type_info& type) const = 0;
    // Called by release() when the last reference goes.
    virtual void deleteThis() = 0;
};

// The count starts at 1: the creator holds the first reference (newObj hands
// it to a P<T> without adding another). An object may also live on the stack;
// then nobody may keep a reference beyond its scope.
class CBase : public virtual IBase {
public:
    CBase() noexcept : refCount(1) {}
    // A copy is a new object with its own single reference.
    CBase(const CBase&) noexcept : IBase(), refCount(1) {}
    CBase& operator=(const CBase&) noexcept { return *this; }
    ~CBase() override = default;

    void addRef() override { refCount.fetch_add(1, std::memory_order_relaxed); }

    void release() override
    {
        if (refCount.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            // Push the count far away from zero so that an addRef/release pair
            // during destruction cannot trigger a second deletion.
            refCount.fetch_add(destructionBias, std::memory_order_relaxed);
            deleteThis();
        }
    }

    bool checkCastAllowed(const std::type_info&) const override { return true; }
    void deleteThis() override { delete this; }

    std::uint32_t getRefCount() const { return refCount.load(std::memory_order_relaxed); }

    static constexpr std::uint32_t destructionBias = 0xC0000000u;

private:
    std::atomic<std::uint32_t> refCount;
};

struct AdoptRef {};

// Owning pointer: copying adds a reference, destruction and reassignment
// release one. Construction from a raw pointer adds a reference, so a callee
// may keep any object it is handed; newObj adopts the creator's reference.
template <class T>
class P {
public:
    P() noexcept : ptr(nullptr) {}
    P(std::nullptr_t) noexcept : ptr(nullptr) {}
    P(T* p) : ptr(p) { if (ptr) ptr->addRef(); }
    P(T* p, AdoptRef) noexcept : ptr(p) {}
    P(const P& other) : ptr(other.ptr) { if (ptr) ptr->addRef(); }
    P(P&& other) noexcept : ptr(other.ptr) { other.ptr = nullptr; }
    template <class U>
    P(const P<U>& other) : ptr(other.get()) { if (ptr) ptr->addRef(); }
    template <class U>
    P(P<U>&& other) noexcept : ptr(other.detach()) {}
    ~P() { if (ptr) ptr->release(); }

    P& operator=(const P& other) { reset(other.ptr); return *this; }
    P& operator=(P&& other) noexcept
    {
        if (this != &other) {
            T* old = ptr;
            ptr = other.ptr;
            other.ptr = nullptr;
            if (old) old->release();
        }
        return *this;
    }
    template <class U>
    P& operator=(const P<U>& other) { reset(other.get()); return *this; }
    template <class U>
    P& operator=(P<U>&& other) noexcept
    {
        T* old = ptr;
        ptr = other.detach();
        if (old) old->release();
        return *this;
    }
    P& operator=(T* p) { reset(p); return *this; }
    P& operator=(std::nullptr_t) { reset(nullptr); return *this; }

    void reset(T* p = nullptr)
    {
        if (p) p->addRef();
        T* old = ptr;
        ptr = p;
        if (old) old->release();
    }
    // Gives up the reference without releasing it.
    T* detach() noexcept { T* p = ptr; ptr = nullptr; return p; }

    T* get() const noexcept { return ptr; }
    T* operator->() const noexcept { return ptr; }
    T& operator*() const noexcept { return *ptr; }
    operator T*() const noexcept { return ptr; }

private:
    T* ptr;
};

template <class T, class... Args>
P<T> newObj(Args&&... args)
{
    return P<T>(new T(std::forward<Args>(args)...), AdoptRef());
}

// Checked downcast; null when the object is not a T (or refuses the cast).
template <class T>
T* tryCast(IBase* object)
{
    if (!object || !object->checkCastAllowed(typeid(T))) return nullptr;
    return dynamic_cast<T*>(object);
}

template <class T>
const T* tryCast(const IBase* object)
{
    if (!object || !object->checkCastAllowed(typeid(T))) return nullptr;
    return dynamic_cast<const T*>(object);
}

} // namespace zu
