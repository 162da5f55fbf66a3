// Loaded into a program with LD_PRELOAD, numbers the calls by which it
// changes files (opens for writing, writes, truncations, syncs, renames,
// deletions) and kills the process with SIGKILL just before call number
// KORD_KILL_AT: the program dies there as it would by a signal or the OOM
// killer, with what it wrote so far in the file system's hands. With
// KORD_KILL_COUNT=<file> the number of calls made is written to that file
// when the program ends normally.
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

namespace {

long long calls = 0;

void countCall()
{
    ++calls;
    static const long long killAt = [] {
        const char* value = getenv("KORD_KILL_AT");
        return value ? atoll(value) : 0LL;
    }();
    if (calls == killAt) raise(SIGKILL);
}

template <class F>
F next(const char* name)
{
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

__attribute__((destructor)) void reportCount()
{
    if (const char* path = getenv("KORD_KILL_COUNT")) {
        if (FILE* out = fopen(path, "w")) {
            fprintf(out, "%lld\n", calls);
            fclose(out);
        }
    }
}

} // namespace

// Each wrapper counts the call (an open only when it may change the file)
// and passes it on to the C library.
#define KORD_COUNTED_OPEN(name)                                                    \
    int name(const char* path, int flags, ...)                                     \
    {                                                                              \
        va_list args;                                                              \
        va_start(args, flags);                                                     \
        mode_t mode = static_cast<mode_t>(va_arg(args, int));                      \
        va_end(args);                                                              \
        if (flags & (O_WRONLY | O_RDWR | O_CREAT | O_TRUNC)) countCall();          \
        return next<int (*)(const char*, int, ...)>(#name)(path, flags, mode);     \
    }
#define KORD_COUNTED(result, name, params, args)                                   \
    result name params                                                             \
    {                                                                              \
        countCall();                                                               \
        return next<result(*) params>(#name) args;                                 \
    }

extern "C" {

KORD_COUNTED_OPEN(open)
KORD_COUNTED_OPEN(open64)
KORD_COUNTED(ssize_t, pwrite, (int fd, const void* data, size_t bytes, off_t offset), (fd, data, bytes, offset))
KORD_COUNTED(ssize_t, pwrite64, (int fd, const void* data, size_t bytes, off64_t offset), (fd, data, bytes, offset))
KORD_COUNTED(int, ftruncate, (int fd, off_t length), (fd, length))
KORD_COUNTED(int, ftruncate64, (int fd, off64_t length), (fd, length))
KORD_COUNTED(int, fdatasync, (int fd), (fd))
KORD_COUNTED(int, fsync, (int fd), (fd))
KORD_COUNTED(int, rename, (const char* from, const char* to), (from, to))
KORD_COUNTED(int, unlink, (const char* path), (path))

} // extern "C"
