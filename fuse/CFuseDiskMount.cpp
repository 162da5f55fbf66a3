#define FUSE_USE_VERSION 31
#include "CFuseDiskMount.h"

#include "base/CError.h"
#include "base/CLocalFileSystem.h"
#include "base/Errno.h"
#include "base/Log.h"

#include <fuse.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <linux/falloc.h>
#include <spawn.h>
#include <sstream>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace kordfuse {

namespace {

const char* const fileSystemType = "kord";
// The extended attribute of the mount's root that gives the serving
// process's id, so that unmount can wait for it to end.
const char* const pidAttribute = "user.kord.pid";
// How long unmount waits for the serving process to let go of the disk.
constexpr auto releaseTimeout = std::chrono::seconds(120);

std::string describe(const std::exception& error)
{
    const auto* zuError = dynamic_cast<const zu::CError*>(&error);
    return zuError ? zuError->toString().toUTF8() : std::string(error.what());
}

zu::CError mountError(const std::string& message, const std::string& dir)
{
    return zu::CError(zu::String(message), zu::String("kord"), -1, zu::CProps().set("dir", zu::String(dir)));
}

// fuse's option parser splits at commas and takes backslash escapes.
std::string escapeOption(const std::string& value)
{
    std::string out;
    for (char c : value) {
        if (c == ',' || c == '\\') out += '\\';
        out += c;
    }
    return out;
}

bool isOctalDigit(char c) { return c >= '0' && c <= '7'; }

// The mount table escapes white space and backslashes as \ooo.
std::string unescapeMountField(const std::string& field)
{
    std::string out;
    for (size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size() && isOctalDigit(field[i + 1]) && isOctalDigit(field[i + 2]) &&
            isOctalDigit(field[i + 3])) {
            out += static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 + (field[i + 3] - '0'));
            i += 3;
        } else {
            out += field[i];
        }
    }
    return out;
}

// Fails unless dir is the mount point of a kord mount.
void checkKordMount(const std::string& dir)
{
    char* resolved = ::realpath(dir.c_str(), nullptr);
    if (!resolved) throw mountError("The folder does not exist.", dir);
    const std::string mountPoint = resolved;
    std::free(resolved);
    std::ifstream table("/proc/self/mountinfo");
    std::string line;
    while (std::getline(table, line)) {
        // id parent major:minor root mount-point options [optional...] - type source super-options
        std::istringstream fields(line);
        std::string id, parent, device, root, point, word;
        fields >> id >> parent >> device >> root >> point;
        while (fields >> word && word != "-") {
        }
        std::string type;
        fields >> type;
        if (unescapeMountField(point) == mountPoint && type == "fuse." + std::string(fileSystemType)) return;
    }
    throw mountError("No kord mount at this folder.", dir);
}

// The process that serves the mount, as it tells through the extended
// attribute of the mount's root.
pid_t servingProcess(const std::string& dir)
{
    char text[32] = {};
    ssize_t length = ::getxattr(dir.c_str(), pidAttribute, text, sizeof text - 1);
    if (length <= 0) throw mountError("The kord mount does not name its process.", dir);
    return static_cast<pid_t>(std::strtol(text, nullptr, 10));
}

void runFusermount(const std::string& dir)
{
    std::vector<char*> argv = {const_cast<char*>("fusermount3"), const_cast<char*>("-u"), const_cast<char*>(dir.c_str()),
                               nullptr};
    pid_t pid;
    if (posix_spawnp(&pid, "fusermount3", nullptr, nullptr, argv.data(), environ) != 0)
        throw mountError("Cannot run fusermount3 (package fuse3).", dir);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) throw mountError("fusermount3 could not unmount the folder.", dir);
}

bool isRunning(pid_t pid)
{
    if (::kill(pid, 0) != 0 && errno == ESRCH) return false;
    // A process that has ended but was not reaped yet has let go of everything.
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(stat, line);
    const size_t end = line.rfind(')');
    return end != std::string::npos && end + 2 < line.size() && line[end + 2] != 'Z';
}

// Returns once the serving process has written the disk's changes and ended.
void waitForExit(pid_t pid, const std::string& dir)
{
    const auto deadline = std::chrono::steady_clock::now() + releaseTimeout;
    while (isRunning(pid)) {
        if (std::chrono::steady_clock::now() > deadline)
            throw zu::CError(zu::String("The unmounted disk's process has not ended."), zu::String("kord"), -1,
                             zu::CProps().set("dir", zu::String(dir)).set("pid", static_cast<long long>(pid)));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

} // namespace

struct CFuseCallbacks {
    static CFuseDiskMount& mount() { return *static_cast<CFuseDiskMount*>(fuse_get_context()->private_data); }

    static void* init(fuse_conn_info* connection, fuse_config* config)
    {
        // The disk is locked: nobody else changes it, so cached pages stay good.
        config->kernel_cache = 1;
        // O_TRUNC reaches open (which ignores it, as a block device does)
        // instead of becoming a truncation to 0.
        if (connection->capable & FUSE_CAP_ATOMIC_O_TRUNC) connection->want |= FUSE_CAP_ATOMIC_O_TRUNC;
        return fuse_get_context()->private_data;
    }

    static int getattr(const char* path, struct stat* info, fuse_file_info*)
    {
        CFuseDiskMount& self = mount();
        *info = self.fileInfo;
        if (std::strcmp(path, "/") == 0) {
            info->st_mode = S_IFDIR | 0755;
            info->st_nlink = 2;
            info->st_size = 0;
            return 0;
        }
        if (!self.isFile(path)) return -ENOENT;
        info->st_mode = S_IFREG | (self.served->isWritable() ? 0644 : 0444);
        info->st_nlink = 1;
        info->st_size = self.served->getSize();
        info->st_blocks = (info->st_size + 511) / 512;
        info->st_blksize = static_cast<blksize_t>(std::min<long long>(self.served->getGrainSize(), 1 << 20));
        return 0;
    }

    static int readdir(const char* path, void* buffer, fuse_fill_dir_t fill, off_t, fuse_file_info*, fuse_readdir_flags)
    {
        if (std::strcmp(path, "/") != 0) return -ENOTDIR;
        fill(buffer, ".", nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
        fill(buffer, "..", nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
        fill(buffer, mount().fileName.c_str(), nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
        return 0;
    }

    static int open(const char* path, fuse_file_info* file)
    {
        CFuseDiskMount& self = mount();
        if (!self.isFile(path)) return -ENOENT;
        if ((file->flags & O_ACCMODE) != O_RDONLY && !self.served->isWritable()) return -EROFS;
        file->keep_cache = 1;
        return 0;
    }

    static int read(const char*, char* buffer, size_t bytes, off_t offset, fuse_file_info*)
    {
        CFuseDiskMount& self = mount();
        const long long n = std::max(0LL, std::min<long long>(static_cast<long long>(bytes), self.served->getSize() - offset));
        int result = self.guarded([&] { self.served->read(buffer, n, offset); });
        return result < 0 ? result : static_cast<int>(n);
    }

    static int write(const char*, const char* buffer, size_t bytes, off_t offset, fuse_file_info*)
    {
        CFuseDiskMount& self = mount();
        const long long n = std::min<long long>(static_cast<long long>(bytes), self.served->getSize() - offset);
        if (n <= 0) return bytes == 0 ? 0 : -ENOSPC;
        int result = self.guarded([&] { self.served->write(buffer, n, offset); });
        if (result < 0) return result;
        ::clock_gettime(CLOCK_REALTIME, &self.fileInfo.st_mtim);
        self.fileInfo.st_ctim = self.fileInfo.st_mtim;
        return static_cast<int>(n);
    }

    static int flush(const char*, fuse_file_info*)
    {
        CFuseDiskMount& self = mount();
        if (!self.served->isWritable()) return 0;
        return self.guarded([&] { self.served->flush(); });
    }

    static int fsync(const char* path, int, fuse_file_info* file) { return flush(path, file); }

    // The size is fixed; only "truncating" to the size itself succeeds.
    static int truncate(const char* path, off_t size, fuse_file_info*)
    {
        CFuseDiskMount& self = mount();
        if (!self.isFile(path)) return -ENOENT;
        if (!self.served->isWritable()) return -EROFS;
        return size == self.served->getSize() ? 0 : -EINVAL;
    }

    static int fallocate(const char*, int mode, off_t offset, off_t bytes, fuse_file_info*)
    {
        CFuseDiskMount& self = mount();
        const long long size = self.served->getSize();
        // Plain allocation within the size needs nothing: a read of any
        // grain succeeds, and a write gets storage when it needs it.
        const bool zeroing = (mode & (FALLOC_FL_PUNCH_HOLE | FALLOC_FL_ZERO_RANGE)) != 0;
        if (mode & ~(FALLOC_FL_KEEP_SIZE | FALLOC_FL_PUNCH_HOLE | FALLOC_FL_ZERO_RANGE)) return -EOPNOTSUPP;
        if (offset < 0 || bytes <= 0) return -EINVAL;
        if (!zeroing) return offset + bytes > size ? -EFBIG : 0;
        if (!self.served->isWritable()) return -EROFS;
        const long long end = std::min<long long>(offset + bytes, size);
        if (offset >= end) return 0;
        return self.guarded([&] { self.served->zero(end - offset, offset, false); });
    }

    static off_t lseek(const char*, off_t offset, int whence, fuse_file_info*)
    {
        CFuseDiskMount& self = mount();
        const long long size = self.served->getSize();
        if (whence != SEEK_DATA && whence != SEEK_HOLE) return -EINVAL;
        if (offset < 0 || offset >= size) return -ENXIO;
        const bool wantData = whence == SEEK_DATA;
        long long found = wantData ? -1 : size;
        int result = self.guarded([&] {
            self.served->mapAllocation(size - offset, offset, [&](long long start, long long, bool allocated) {
                if (allocated != wantData) return true;
                found = std::max<long long>(start, offset);
                return false;
            });
        });
        if (result < 0) return result;
        return found < 0 ? -ENXIO : found;
    }

    static int getxattr(const char* path, const char* name, char* value, size_t size)
    {
        if (std::strcmp(path, "/") != 0 || std::strcmp(name, pidAttribute) != 0) return -ENODATA;
        const std::string pid = std::to_string(::getpid());
        if (size == 0) return static_cast<int>(pid.size());
        if (size < pid.size()) return -ERANGE;
        std::memcpy(value, pid.data(), pid.size());
        return static_cast<int>(pid.size());
    }

    static fuse_operations operations()
    {
        fuse_operations ops{};
        ops.init = init;
        ops.getattr = getattr;
        ops.readdir = readdir;
        ops.open = open;
        ops.read = read;
        ops.write = write;
        ops.flush = flush;
        ops.fsync = fsync;
        ops.truncate = truncate;
        ops.fallocate = fallocate;
        ops.lseek = lseek;
        ops.getxattr = getxattr;
        return ops;
    }
};

CFuseDiskMount::CFuseDiskMount(kord::CVMDKDisk* disk)
    : served(std::make_unique<kordserve::CServedDisk>(disk)),
      diskPath(zu::CLocalFileSystem::uriToPath(disk->getMainURI()).toUTF8()),
      fileName(disk->getMainURI().getTitle().toUTF8() + ".raw")
{
    if (::stat(diskPath.c_str(), &fileInfo) != 0) fileInfo = {};
}

CFuseDiskMount::~CFuseDiskMount() = default;

bool CFuseDiskMount::isFile(const char* path) const { return path[0] == '/' && fileName == path + 1; }

template <class F>
int CFuseDiskMount::guarded(F request)
{
    try {
        request();
        return 0;
    } catch (const std::exception& error) {
        report(describe(error));
        return -zu::errnoOf(error);
    }
}

void CFuseDiskMount::report(const std::string& line) const
{
    if (detached)
        syslog(LOG_ERR, "%s", line.c_str());
    else
        std::cerr << "kord: " << line << std::endl;
}

void CFuseDiskMount::serve(const std::string& dir, bool foreground)
{
    struct stat dirInfo;
    if (::stat(dir.c_str(), &dirInfo) != 0 || !S_ISDIR(dirInfo.st_mode)) throw mountError("The mount point is not a folder.", dir);
    std::vector<std::string> args = {"kord", "-o",
                                      "fsname=" + escapeOption(std::string(fileSystemType) + ":" + diskPath) +
                                          ",subtype=" + fileSystemType + ",default_permissions" +
                                          (served->isWritable() ? "" : ",ro")};
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    fuse_args fuseArgs = FUSE_ARGS_INIT(static_cast<int>(argv.size()), argv.data());
    const fuse_operations ops = CFuseCallbacks::operations();
    fuse* session = fuse_new(&fuseArgs, &ops, sizeof ops, this);
    if (!session) throw mountError("Cannot set up the FUSE session.", dir);
    if (fuse_mount(session, dir.c_str()) != 0) {
        fuse_destroy(session);
        throw mountError("Cannot mount the disk at the folder (is /dev/fuse usable?).", dir);
    }
    if (!foreground) {
        // The lock is an open-file lock: the detached process keeps it.
        if (fuse_daemonize(0) != 0) {
            fuse_unmount(session);
            fuse_destroy(session);
            throw mountError("Cannot detach the mount's process.", dir);
        }
        detached = true;
        openlog("kord", LOG_PID, LOG_USER);
        zu::setLogSink([](zu::LogLevel, const zu::String& line) { syslog(LOG_WARNING, "%s", line.toUTF8().c_str()); });
    }
    fuse_session* fuseSession = fuse_get_session(session);
    fuse_set_signal_handlers(fuseSession);
    fuse_loop(session);
    fuse_remove_signal_handlers(fuseSession);
    fuse_unmount(session);
    fuse_destroy(session);
    // Released (with its lock) on the way out, whether the flush works or not.
    std::unique_ptr<kordserve::CServedDisk> last = std::move(served);
    try {
        if (last->isWritable()) last->flush();
    } catch (const std::exception& error) {
        if (detached) report(describe(error));
        throw;
    }
}

void CFuseDiskMount::unmount(const std::string& dir)
{
    checkKordMount(dir);
    const pid_t pid = servingProcess(dir);
    runFusermount(dir);
    waitForExit(pid, dir);
}

} // namespace kordfuse
