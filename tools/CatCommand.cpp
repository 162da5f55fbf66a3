#include "CatCommand.h"

#include "ImageFormat.h"
#include "Passwords.h"
#include "Progress.h"
#include "ToolSupport.h"

#include "base/CIOError.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <unistd.h>

namespace kordtool {

namespace {

constexpr long long chunkBytes = 1024 * 1024;

struct CCatOptions {
    bool progress = false;
    CImageFormat format;
    std::string disk;
    CPasswordSource passwords;
};

void writeToStandardOutput(const unsigned char* data, long long bytes)
{
    while (bytes > 0) {
        ssize_t n = ::write(STDOUT_FILENO, data, static_cast<size_t>(bytes));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0)
            throw zu::CIOError(zu::CIOError::codeWrite, "Cannot write to standard output.",
                               zu::CProps().set("errno", errno));
        data += n;
        bytes -= n;
    }
}

void runCat(CCatOptions& options)
{
    zu::P<kord::CVMDKDisk> disk = openDisk(options.disk, zu::IIOStream::accessRead, options.passwords, options.format);
    zu::TBuffer<unsigned char> buffer(chunkBytes);
    long long size = disk->getDiskSizeBytes();
    CProgress progress(options.progress, "cat");
    for (long long position = 0; position < size;) {
        long long bytes = std::min(chunkBytes, size - position);
        disk->read(buffer.getData(), static_cast<int>(bytes));
        writeToStandardOutput(buffer.getData(), bytes);
        position += bytes;
        progress.update(position, size);
    }
    progress.finish();
}

} // namespace

void addCatCommand(CLI::App& app)
{
    auto options = std::make_shared<CCatOptions>();
    CLI::App* command = app.add_subcommand("cat", "Write the disk's virtual contents to standard output");
    command->add_flag("-p,--progress", options->progress, "Show progress on standard error");
    command->add_option("DISK", options->disk, "The disk's main file")->required();
    options->format.addOption(command, {"vmdk"});
    options->passwords.addOptions(command);
    command->callback([options] { runCat(*options); });
}

} // namespace kordtool
