#include "base/Threads.h"

#include <thread>

namespace zu {

IMutex* getGlobalMutex()
{
    // A function-local static: built on first use under the compiler's
    // thread-safe initialisation guard, destroyed at exit.
    static CMutex mutex;
    return &mutex;
}

void threadYield() { std::this_thread::yield(); }

} // namespace zu
