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

bool changes(int flags) { return (flags & (O_WRONLY | O_RDWR | O_CREAT | O_TRUNC)) != 0; }

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

extern "C" {

int open(const char* path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    mode_t mode = static_cast<mode_t>(va_arg(args, int));
    va_end(args);
    if (changes(flags)) countCall();
    return next<int (*)(const char*, int, ...)>("open")(path, flags, mode);
}

int open64(const char* path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    mode_t mode = static_cast<mode_t>(va_arg(args, int));
    va_end(args);
    if (changes(flags)) countCall();
    return next<int (*)(const char*, int, ...)>("open64")(path, flags, mode);
}

ssize_t pwrite(int fd, const void* data, size_t bytes, off_t offset)
{
    countCall();
    return next<ssize_t (*)(int, const void*, size_t, off_t)>("pwrite")(fd, data, bytes, offset);
}

ssize_t pwrite64(int fd, const void* data, size_t bytes, off64_t offset)
{
    countCall();
    return next<ssize_t (*)(int, const void*, size_t, off64_t)>("pwrite64")(fd, data, bytes, offset);
}

int ftruncate(int fd, off_t length)
{
    countCall();
    return next<int (*)(int, off_t)>("ftruncate")(fd, length);
}

int ftruncate64(int fd, off64_t length)
{
    countCall();
    return next<int (*)(int, off64_t)>("ftruncate64")(fd, length);
}

int fdatasync(int fd)
{
    countCall();
    return next<int (*)(int)>("fdatasync")(fd);
}

int fsync(int fd)
{
    countCall();
    return next<int (*)(int)>("fsync")(fd);
}

int rename(const char* from, const char* to)
{
    countCall();
    return next<int (*)(const char*, const char*)>("rename")(from, to);
}

int unlink(const char* path)
{
    countCall();
    return next<int (*)(const char*)>("unlink")(path);
}

} // extern "C"
