// Lock files between real processes on the local file system: the kernel's
// locks exclude another process while the holder lives and vanish when it
// dies, even though the lock file itself stays behind.
#include "common/TestUtil.h"

#include "base/CLockFile.h"

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

using namespace zu;

namespace {

// A child process that takes the lock and holds it until it is killed or,
// with holdMs >= 0, releases it (removing the file) after that time.
struct LockHolder {
    LockHolder(const CURI& uri, CLockFile::LockType type, int holdMs = -1)
    {
        int fds[2];
        if (pipe(fds) != 0) throw std::runtime_error("pipe failed");
        pid = fork();
        if (pid == 0) {
            try {
                CLockFile lock(newObj<CLocalFileSystem>(), uri, type, false, true);
                if (write(fds[1], "1", 1) != 1) _exit(2);
                while (holdMs < 0) pause();
                usleep(static_cast<useconds_t>(holdMs) * 1000);
            } catch (...) {
                _exit(1); // the parent reads the end of the pipe: no lock
            }
            _exit(0);
        }
        close(fds[1]);
        char state = 0;
        const bool ready = read(fds[0], &state, 1) == 1;
        close(fds[0]);
        if (!ready) {
            waitpid(pid, nullptr, 0);
            throw std::runtime_error("the child could not take the lock");
        }
    }
    ~LockHolder() { killNow(); }
    void killNow()
    {
        if (pid > 0 && kill(pid, SIGKILL) == 0) waitpid(pid, nullptr, 0);
        pid = -1;
    }
    pid_t pid = -1;
};

} // namespace

TEST(LockFileTest, otherProcessIsExcludedUntilItDiesReadersShareAndWaitersGetTheLock)
{
    kordtest::TempDir dir;
    P<IFileSystem> fs = newObj<CLocalFileSystem>();
    CURI uri = CLocalFileSystem::pathToURI(dir.file("disk.vmdk.lock"));
    LockHolder writer(uri, CLockFile::lockTypeWrite);
    EXPECT_THROW(CLockFile(fs, uri, CLockFile::lockTypeWrite, false, true), CLockFileError);
    EXPECT_THROW(CLockFile(fs, uri, CLockFile::lockTypeRead, false, true), CLockFileError);

    // Killed, it cannot remove its lock file; the stale file must not block.
    writer.killNow();
    EXPECT_TRUE(fs->exists(uri));
    { CLockFile again(fs, uri, CLockFile::lockTypeWrite, false, true); }
    EXPECT_FALSE(fs->exists(uri));

    // Readers share across processes.
    {
        LockHolder reader(uri, CLockFile::lockTypeRead);
        { CLockFile shared(fs, uri, CLockFile::lockTypeRead, false, true); }
        EXPECT_TRUE(fs->exists(uri)) << "deleted while another reader held it";
        EXPECT_THROW(CLockFile(fs, uri, CLockFile::lockTypeWrite, false, true), CLockFileError);
    }
    // The holder removes the file when it exits; the waiter must then lock
    // the file that is at the path, not the deleted one it opened.
    LockHolder briefWriter(uri, CLockFile::lockTypeWrite, 200);
    CLockFile waited(fs, uri, CLockFile::lockTypeWrite, true, true);
    EXPECT_TRUE(fs->exists(uri));
    EXPECT_THROW(LockHolder(uri, CLockFile::lockTypeRead), std::runtime_error);
}
