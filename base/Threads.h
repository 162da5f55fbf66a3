// The few threading primitives the libraries need: a process-wide mutex for
// global state (the shared random generator), a scoped lock and a yield.
// The libraries start no threads of their own.
#pragma once

#include "base/CBase.h"

#include <mutex>

namespace zu {

class IMutex : public virtual IBase {
public:
    virtual void lock() = 0;
    virtual void unlock() = 0;
};

class CMutex : public CBase, public IMutex {
public:
    void lock() override { mutex.lock(); }
    void unlock() override { mutex.unlock(); }

private:
    std::recursive_mutex mutex;
};

// The process-wide mutex, created on first use (thread-safe) and recursive,
// so that helpers that take it may call one another.
IMutex* getGlobalMutex();

class CMutexLock {
public:
    explicit CMutexLock(IMutex* mutex) : mutex(mutex) { mutex->lock(); }
    ~CMutexLock() { mutex->unlock(); }
    CMutexLock(const CMutexLock&) = delete;
    CMutexLock& operator=(const CMutexLock&) = delete;

private:
    IMutex* mutex;
};

void threadYield();

} // namespace zu
