// How a command takes the file of its source or disk: as a raw image or as
// a VMDK disk, as -f says, else by the file's own structure. Without -f a
// file is a VMDK disk only when it begins with a sparse extent's magic
// number, or when it is a small text file that holds a well-formed
// descriptor and nothing else; anything else is a raw image, whose bytes
// are never taken as the names of other files to read.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace kordtool {

class CImageFormat {
public:
    // Text descriptor files larger than this are taken as descriptors only
    // with -f vmdk: raw disk images are never this small.
    static constexpr long long maxDetectedDescriptorBytes = 64 * 1024;

    // Adds -f,--format (or the option `names`) to a command, offering the
    // formats it takes ("raw", "vmdk").
    void addOption(CLI::App* command, const std::vector<std::string>& formats,
                   const std::string& names = "-f,--format");
    // Whether the file at `path` is to be read as a VMDK disk.
    bool isVMDK(const std::string& path) const;
    // For commands that take VMDK disks only: the error that says why the
    // file is not taken as one.
    void requireVMDK(const std::string& path) const;

private:
    std::string given;
};

} // namespace kordtool
