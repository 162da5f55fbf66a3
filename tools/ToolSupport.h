// What every kord subcommand shares: the local file system, paths and URIs,
// opening disks (with the password when they need one), and the way the
// program reports errors and the library's log lines.
#pragma once

#include "base/CError.h"
#include "base/CLocalFileSystem.h"
#include "disk/CVMDKDisk.h"
#include "info/DiskInfo.h"

#include <string>

namespace CLI {
class App;
}

namespace kordtool {

class CImageFormat;
class CPasswordSource;

// Exit codes of the program.
constexpr int exitSuccess = 0;
constexpr int exitFailure = 2;

zu::IFileSystem* localFileSystem();
zu::CURI pathToURI(const std::string& path);
using kordinfo::uriToDisplay;

// Whether a disk's descriptor asks for a password. Files that cannot be
// read say no: opening them reports the real problem.
bool diskNeedsPassword(const zu::CURI& uri);

// Opens the disk at `path`, of any variant (access zu::IIOStream::accessRead
// or accessReadWrite), asking `passwords` for the password when the disk is
// encrypted; a file that `format` does not take as a VMDK disk is refused.
zu::P<kord::CVMDKDisk> openDisk(const std::string& path, int access, CPasswordSource& passwords,
                                const CImageFormat& format);

// Adds --output=human|json and its short form --json to a command that can
// print JSON; `json` must outlive the command line's parsing.
void addOutputOptions(CLI::App* command, bool& json);

// An error of the tool itself (a bad combination of options, a missing
// password source), reported like the library's errors.
zu::CError toolError(const std::string& message, const zu::CProps& props = zu::CProps());

// Routes the library's log lines for the program's lifetime: warnings go to
// standard error at once; errors the library logged and passed on are held
// back, since the error that ends the program says the same. Errors logged
// for failures nobody was told about (in destructors) are printed when the
// program ends without an error of its own.
class CToolLog {
public:
    CToolLog();
    ~CToolLog();
    CToolLog(const CToolLog&) = delete;
    CToolLog& operator=(const CToolLog&) = delete;
    void printHeldErrors();
};

// "kord: <message> <name=value ...>" on standard error, then each error
// that caused it on a line of its own, "kord:   caused by: ...".
void printError(const std::exception& error);

} // namespace kordtool
