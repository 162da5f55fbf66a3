// The nbdkit plugin "kord": serves one disk, of any kind kord opens, as an
// NBD export.
//
//   nbdkit kord file=DISK [password=PASSWORD|-|+FILE|-FD] [password-file=FILE] [readonly=true]
//
// The disk is opened (and its lock file taken) before nbdkit starts serving,
// so that a disk in use elsewhere stops the server at once. All connections
// share the one disk and nbdkit serialises every request, since a disk is
// used by one thread at a time; for the same reason a flush on any
// connection covers the writes of all of them. Failures reach the client as
// errno values, with kord's message in nbdkit's log.
#define NBDKIT_API_VERSION 2
#include <nbdkit-plugin.h>

#include "serve/CServedDisk.h"

#include "base/CLocalFileSystem.h"
#include "base/Errno.h"
#include "base/Log.h"

#include <cerrno>
#include <cstdlib>
#include <string>

#define THREAD_MODEL NBDKIT_THREAD_MODEL_SERIALIZE_ALL_REQUESTS

namespace {

struct CConfig {
    std::string file;
    // Owned by nbdkit_read_password's caller: freed at unload.
    char* password = nullptr;
    bool readOnly = false;
};

CConfig config;
// Not an object with a static destructor: nbdkit's parent process exits
// after forking the server, and must leave the disk (and the lock file it
// shares with the server) alone. The serving process releases it at unload.
kordserve::CServedDisk* served = nullptr;

// Logs the error for the server's operator and hands its errno to the client.
int fail(const std::exception& error)
{
    const auto* zuError = dynamic_cast<const zu::CError*>(&error);
    nbdkit_error("%s", zuError ? zuError->toString().toUTF8().c_str() : error.what());
    nbdkit_set_error(zu::errnoOf(error));
    return -1;
}

// Runs a request; any error becomes -1 with errno set.
template <class F>
int guarded(F request)
{
    try {
        request();
        return 0;
    } catch (const std::exception& error) {
        return fail(error);
    }
}

void kordLoad()
{
    // Library warnings (an unclean disk, a repaired table) show with nbdkit -v.
    zu::setLogSink([](zu::LogLevel, const zu::String& line) { nbdkit_debug("%s", line.toUTF8().c_str()); });
}

void kordUnload()
{
    delete served;
    served = nullptr;
    std::free(config.password);
    config.password = nullptr;
    zu::setLogSink(zu::LogSink());
}

int kordConfig(const char* key, const char* value)
{
    const std::string name = key;
    if (name == "file") {
        config.file = value;
    } else if (name == "password" || name == "password-file") {
        std::free(config.password);
        config.password = nullptr;
        // nbdkit reads "-" from the terminal, "-FD" from a descriptor and "+FILE" from a file.
        const std::string given = name == "password" ? std::string(value) : "+" + std::string(value);
        if (nbdkit_read_password(given.c_str(), &config.password) == -1) return -1;
    } else if (name == "readonly") {
        int readOnly = nbdkit_parse_bool(value);
        if (readOnly == -1) return -1;
        config.readOnly = readOnly != 0;
    } else {
        nbdkit_error("unknown parameter '%s'", key);
        return -1;
    }
    return 0;
}

int kordConfigComplete()
{
    if (config.file.empty()) {
        nbdkit_error("you must supply the file=<DISK> parameter");
        return -1;
    }
    return 0;
}

// Opens the disk before nbdkit forks into the background: the lock, a
// wrong password or a damaged disk stop the server here. The lock is an
// open-file lock, so the served process keeps it after the fork.
int kordGetReady()
{
    return guarded([] {
        zu::P<zu::IFileSystem> fileSystem = zu::newObj<zu::CLocalFileSystem>();
        zu::CURI uri = zu::CLocalFileSystem::pathToURI(zu::String(config.file)).toNormalized();
        int access = config.readOnly ? zu::IIOStream::accessRead : zu::IIOStream::accessReadWrite;
        zu::String password = config.password ? zu::String(config.password) : zu::String();
        served = new kordserve::CServedDisk(kord::CVMDKDisk::openAny(fileSystem, uri, access, password));
    });
}

// Writes what is pending while errors can still be reported; the disk is
// released at unload.
void kordCleanup()
{
    if (served && served->isWritable()) guarded([] { served->flush(); });
}

void* kordOpen(int) { return served; }

kordserve::CServedDisk& diskOf(void* handle) { return *static_cast<kordserve::CServedDisk*>(handle); }

int64_t kordGetSize(void* handle) { return diskOf(handle).getSize(); }

int kordCanWrite(void* handle) { return diskOf(handle).isWritable() ? 1 : 0; }

int kordCanDo(void*) { return 1; }

int kordPread(void* handle, void* buffer, uint32_t count, uint64_t offset, uint32_t)
{
    return guarded([&] { diskOf(handle).read(buffer, count, static_cast<long long>(offset)); });
}

// Forced unit access is left to nbdkit, which follows such a write with a flush.
int kordPwrite(void* handle, const void* buffer, uint32_t count, uint64_t offset, uint32_t)
{
    return guarded([&] { diskOf(handle).write(buffer, count, static_cast<long long>(offset)); });
}

int kordFlush(void* handle, uint32_t) { return guarded([&] { diskOf(handle).flush(); }); }

int kordZero(void* handle, uint32_t count, uint64_t offset, uint32_t flags)
{
    bool done = false;
    int result = guarded(
        [&] { done = diskOf(handle).zero(count, static_cast<long long>(offset), (flags & NBDKIT_FLAG_FAST_ZERO) != 0); });
    if (result == 0 && !done) {
        // Fast zeroing was asked for, and the range holds data.
        nbdkit_set_error(ENOTSUP);
        return -1;
    }
    return result;
}

int kordExtents(void* handle, uint32_t count, uint64_t offset, uint32_t flags, struct nbdkit_extents* extents)
{
    return guarded([&] {
        const bool one = (flags & NBDKIT_FLAG_REQ_ONE) != 0;
        diskOf(handle).mapAllocation(count, static_cast<long long>(offset), [&](long long start, long long length, bool allocated) {
            uint32_t type = allocated ? 0 : NBDKIT_EXTENT_HOLE | NBDKIT_EXTENT_ZERO;
            if (nbdkit_add_extent(extents, static_cast<uint64_t>(start), static_cast<uint64_t>(length), type) == -1)
                throw zu::CError(zu::String("nbdkit refused an extent."), zu::String(), -1,
                                 zu::CProps().set("offset", start).set("length", length));
            return !one;
        });
    });
}

nbdkit_plugin makePlugin()
{
    nbdkit_plugin plugin{};
    plugin.name = "kord";
    plugin.longname = "kord VMDK disk plugin";
    plugin.version = KORD_VERSION;
    plugin.description = "Serves a VMDK virtual disk through kord.";
    plugin.load = kordLoad;
    plugin.unload = kordUnload;
    plugin.config = kordConfig;
    plugin.config_complete = kordConfigComplete;
    plugin.config_help = "file=<DISK>          (required) The disk's main file.\n"
                         "password=<PASSWORD>  The password of an encrypted disk: - asks for it,\n"
                         "                     +FILE reads it from FILE, -FD from a descriptor.\n"
                         "password-file=<FILE> Reads the password from FILE.\n"
                         "readonly=true        Opens the disk read-only, sharing it with other readers.";
    plugin.magic_config_key = "file";
    plugin.get_ready = kordGetReady;
    plugin.cleanup = kordCleanup;
    plugin.open = kordOpen;
    plugin.get_size = kordGetSize;
    plugin.can_write = kordCanWrite;
    plugin.can_flush = kordCanDo;
    plugin.can_zero = kordCanDo;
    plugin.can_fast_zero = kordCanDo;
    plugin.can_extents = kordCanDo;
    plugin.can_multi_conn = kordCanDo;
    plugin.pread = kordPread;
    plugin.pwrite = kordPwrite;
    plugin.flush = kordFlush;
    plugin.zero = kordZero;
    plugin.extents = kordExtents;
    plugin.errno_is_preserved = 0;
    return plugin;
}

nbdkit_plugin plugin = makePlugin();

} // namespace

NBDKIT_REGISTER_PLUGIN(plugin)
