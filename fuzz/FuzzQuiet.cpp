// Linked into the libFuzzer targets: hostile inputs make the library log
// warnings and errors by the thousand, which would bury libFuzzer's own
// output. (The standalone driver silences the log in its main.)
#include "base/Log.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    zu::setLogSink([](zu::LogLevel, const zu::String&) {});
    return 0;
}
