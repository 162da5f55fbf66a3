#include "WriteCommand.h"

#include "ImageFormat.h"
#include "Passwords.h"
#include "Sizes.h"
#include "ToolSupport.h"

#include "base/CIOError.h"

#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace kordtool {

namespace {

constexpr long long chunkBytes = 1024 * 1024;

struct CWriteOptions {
    CImageFormat format;
    std::string disk;
    std::string offset;
    std::string input = "-";
    CPasswordSource passwords;
};

// Closes the input file however the command ends.
class CInput {
public:
    explicit CInput(const std::string& path)
    {
        if (path == "-") return;
        fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0)
            throw zu::CIOError(zu::CIOError::codeOpen, "Cannot open the input file.",
                               zu::CProps().set("path", zu::String(path)).set("errno", errno));
        owned = true;
    }
    ~CInput()
    {
        if (owned) ::close(fd);
    }
    CInput(const CInput&) = delete;
    CInput& operator=(const CInput&) = delete;

    // The size of a regular file, else -1 (a pipe's size is known at its end).
    long long knownSize() const
    {
        struct stat info;
        return ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) ? static_cast<long long>(info.st_size) : -1;
    }

    // Fills the buffer as far as the input goes; 0 at its end.
    long long read(unsigned char* buffer, long long bytes)
    {
        long long done = 0;
        while (done < bytes) {
            ssize_t n = ::read(fd, buffer + done, static_cast<size_t>(bytes - done));
            if (n < 0 && errno == EINTR) continue;
            if (n < 0)
                throw zu::CIOError(zu::CIOError::codeRead, "Cannot read the input.", zu::CProps().set("errno", errno));
            if (n == 0) break;
            done += n;
        }
        return done;
    }

private:
    int fd = STDIN_FILENO;
    bool owned = false;
};

void runWrite(CWriteOptions& options)
{
    long long offset = parseSize(options.offset);
    CInput input(options.input);
    zu::P<kord::CVMDKDisk> disk = openDisk(options.disk, zu::IIOStream::accessReadWrite, options.passwords, options.format);
    // A file that cannot fit is refused before anything is written.
    long long size = input.knownSize();
    if (size >= 0 && (offset > disk->getDiskSizeBytes() || size > disk->getDiskSizeBytes() - offset))
        throw zu::CIOError(zu::CIOError::codeWrite, "Write exceeds VMDK disk size.",
                           zu::CProps()
                               .set("bytesToWrite", size)
                               .set("position", offset)
                               .set("diskSize", disk->getDiskSizeBytes()));
    disk->seek(offset);
    zu::TBuffer<unsigned char> buffer(chunkBytes);
    for (;;) {
        long long got = input.read(buffer.getData(), chunkBytes);
        if (got == 0) break;
        disk->write(buffer.getData(), static_cast<int>(got));
    }
    disk->flushChanges();
}

} // namespace

void addWriteCommand(CLI::App& app)
{
    auto options = std::make_shared<CWriteOptions>();
    CLI::App* command = app.add_subcommand("write", "Write bytes from a file or standard input into a disk");
    command->add_option("--offset", options->offset, "Byte offset in the disk (K, M, G or T suffix allowed)")
        ->type_name("N")
        ->required();
    command->add_option("DISK", options->disk, "The disk's main file")->required();
    command->add_option("FILE", options->input, "The bytes to write; - or nothing for standard input");
    options->format.addOption(command, {"vmdk"});
    options->passwords.addOptions(command);
    command->callback([options] { runWrite(*options); });
}

} // namespace kordtool
