#include "base/CTime.h"

#include <chrono>

namespace zu {

CTime CTime::now()
{
    using namespace std::chrono;
    return CTime(duration_cast<microseconds>(system_clock::now().time_since_epoch()).count());
}

long long CTime::monotonicMicros()
{
    using namespace std::chrono;
    return duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
}

} // namespace zu
