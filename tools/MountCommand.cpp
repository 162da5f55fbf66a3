#include "MountCommand.h"

#include "ImageFormat.h"
#include "Passwords.h"
#include "ToolSupport.h"

#ifdef KORD_WITH_FUSE
#include "fuse/CFuseDiskMount.h"
#endif

#include <memory>

namespace kordtool {

namespace {

struct CMountOptions {
    bool writable = false;
    bool foreground = false;
    std::string disk;
    std::string dir;
    CPasswordSource passwords;
};

#ifdef KORD_WITH_FUSE

void runMount(CMountOptions& options)
{
    int access = options.writable ? zu::IIOStream::accessReadWrite : zu::IIOStream::accessRead;
    // -f is --foreground here: the disk is taken by its own structure.
    kordfuse::CFuseDiskMount mount(openDisk(options.disk, access, options.passwords, CImageFormat()));
    mount.serve(options.dir, options.foreground);
}

void runUnmount(const std::string& dir) { kordfuse::CFuseDiskMount::unmount(dir); }

#else

zu::CError builtWithoutFuse()
{
    return toolError("This kord was built without FUSE (libfuse3-dev was missing): mount and umount are not available.");
}

void runMount(CMountOptions&) { throw builtWithoutFuse(); }

void runUnmount(const std::string&) { throw builtWithoutFuse(); }

#endif

} // namespace

void addMountCommands(CLI::App& app)
{
    auto options = std::make_shared<CMountOptions>();
    CLI::App* mount = app.add_subcommand("mount", "Show a disk as one raw file, DIR/<name>.raw, through FUSE");
    mount->add_flag("-w,--write", options->writable, "Mount read-write (the default is read-only)");
    mount->add_flag("-f,--foreground", options->foreground, "Stay in the foreground until unmounted");
    mount->add_option("DISK", options->disk, "The disk's main file")->required();
    mount->add_option("DIR", options->dir, "An existing folder to mount on")->required();
    options->passwords.addOptions(mount);
    mount->callback([options] { runMount(*options); });

    auto dir = std::make_shared<std::string>();
    CLI::App* umount = app.add_subcommand("umount", "Unmount a kord mount and wait until its disk is released");
    umount->add_option("DIR", *dir, "The mounted folder")->required();
    umount->callback([dir] { runUnmount(*dir); });
}

} // namespace kordtool
