// A disk shown through FUSE as one file, DIR/<name>.raw, alone in the
// mounted folder: a raw image for tools that want one (file-system tools,
// loop devices, hex editors) without converting the disk.
//
// The file behaves as a block device does: its size is fixed, O_TRUNC is
// ignored, a write past the end fails with ENOSPC, hole punching and
// zeroing with fallocate leave unwritten grains unallocated, and
// SEEK_DATA/SEEK_HOLE follow the written grains of the disk's chain.
// Closing or syncing the file writes the disk's pending changes, so that
// their failures reach the program that wrote. Requests are served one at a
// time on one thread, since a disk is used by one thread at a time.
#pragma once

#include "serve/CServedDisk.h"

#include <sys/stat.h>

#include <memory>
#include <string>

namespace kordfuse {

class CFuseDiskMount {
public:
    // Takes a disk on the local file system. The mount table names it
    // ("kord:<path of the main file>"), which is how unmount finds it.
    explicit CFuseDiskMount(kord::CVMDKDisk* disk);
    ~CFuseDiskMount();
    CFuseDiskMount(const CFuseDiskMount&) = delete;
    CFuseDiskMount& operator=(const CFuseDiskMount&) = delete;

    // Mounts at dir and serves until the folder is unmounted (kord umount,
    // fusermount3 -u) or the process gets SIGTERM, SIGINT or SIGHUP; then
    // unmounts, writes the disk's pending changes and releases the disk and
    // its lock. Unless foreground, the process detaches once the mount is
    // in place, and failures from then on go to syslog. Throws when the
    // folder cannot be mounted or the last flush fails.
    void serve(const std::string& dir, bool foreground);

    // Unmounts the kord mount at dir and waits until its process has
    // written the disk's changes and ended (releasing the disk's lock).
    // Throws when dir holds no kord mount or fusermount3 fails.
    static void unmount(const std::string& dir);

    // The file's name in the folder: the main file's title plus ".raw".
    const std::string& getFileName() const { return fileName; }

private:
    // libfuse's callbacks, which reach the mount through the FUSE context.
    friend struct CFuseCallbacks;

    bool isFile(const char* path) const;
    // Runs a request on the disk; its failure is reported and becomes -errno.
    template <class F>
    int guarded(F request);
    void report(const std::string& line) const;

    std::unique_ptr<kordserve::CServedDisk> served;
    std::string diskPath;
    std::string fileName;
    // The main file's times and owner at mount time; writes renew the times.
    struct stat fileInfo;
    bool detached = false;
};

} // namespace kordfuse
